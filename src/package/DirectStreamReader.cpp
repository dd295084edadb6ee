#include "package/DirectStreamReader.h"

#include "pagefile/ChildFileSeeker.h"
#include "pagefile/FileDataCorruptException.h"
#include "pagefile/PageGeometry.h"

namespace Tovrel {

DirectStreamReader::Result DirectStreamReader::Locate(const PagedFilePackage& package, std::uint64_t identifier,
                                                      std::uint64_t limit, std::vector<Run>& runs) {
  const FilePageCache* cache = package.GetPageCache();
  if (cache == nullptr || package.IsModified() || package.IsBroken() || !cache->FileMatchesCache()) {
    return Result::kDeclined;
  }
  const StreamEntry* entry = package.GetStreamTable().Find(identifier);
  if (entry == nullptr) return Result::kNoStream;
  if (entry->size > limit) return Result::kTooLarge;
  if (!package.IsSound(identifier)) return Result::kDeclined;
  RefPtr<ChildFileSeeker> seeker(new ChildFileSeeker);
  try {
    TailLocation tail{};
    ChildFileSeeker::LocateTail(tail, package.GetChildFileTable(), identifier);
    seeker->AttachStream(&package.GetAllocator(), *entry, tail);
  } catch (const FileDataCorruptException&) {
    return Result::kDeclined;  // the package's own read names the damage
  }
  runs.clear();
  std::uint64_t done = 0;
  std::uint64_t i = 0;
  while (i < seeker->pageCount) {
    // Pages whose bytes follow each other in the file make one run.
    const std::uint64_t start = PageOffset(seeker->pageIds[i]) + seeker->pageRanges[i].begin;
    std::uint64_t end = PageOffset(seeker->pageIds[i]) + seeker->pageRanges[i].end;
    for (++i; i < seeker->pageCount && PageOffset(seeker->pageIds[i]) + seeker->pageRanges[i].begin == end; ++i) {
      end = PageOffset(seeker->pageIds[i]) + seeker->pageRanges[i].end;
    }
    if (end - start > entry->size - done) return Result::kDeclined;
    runs.push_back(Run{start, end - start});
    done += end - start;
  }
  return done == entry->size ? Result::kOk : Result::kDeclined;
}

DirectStreamReader::Result DirectStreamReader::Read(const PagedFilePackage& package, std::uint64_t identifier,
                                                    std::uint64_t limit, std::vector<std::uint8_t>& into) {
  std::vector<Run> runs;
  const Result located = Locate(package, identifier, limit, runs);
  if (located != Result::kOk) return located;
  std::uint64_t size = 0;
  for (const Run& run : runs) size += run.size;
  into.resize(size);
  std::uint64_t done = 0;
  for (const Run& run : runs) {
    if (!package.GetPageCache()->ReadFileAt(run.offset, into.data() + done, run.size)) return Result::kDeclined;
    done += run.size;
  }
  return Result::kOk;
}

}  // namespace Tovrel
