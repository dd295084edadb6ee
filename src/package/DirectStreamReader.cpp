#include "package/DirectStreamReader.h"

#include "pagefile/ChildFileSeeker.h"
#include "pagefile/FileDataCorruptException.h"
#include "pagefile/PageGeometry.h"

namespace Tovrel {

DirectStreamReader::Result DirectStreamReader::Read(const PagedFilePackage& package, std::uint64_t identifier,
                                                    std::uint64_t limit, std::vector<std::uint8_t>& into) {
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
  into.resize(entry->size);
  std::uint64_t done = 0;
  std::uint64_t i = 0;
  while (i < seeker->pageCount) {
    // Pages whose bytes follow each other in the file go in one call.
    const std::uint64_t start = PageOffset(seeker->pageIds[i]) + seeker->pageRanges[i].begin;
    std::uint64_t end = PageOffset(seeker->pageIds[i]) + seeker->pageRanges[i].end;
    for (++i; i < seeker->pageCount && PageOffset(seeker->pageIds[i]) + seeker->pageRanges[i].begin == end; ++i) {
      end = PageOffset(seeker->pageIds[i]) + seeker->pageRanges[i].end;
    }
    if (end - start > entry->size - done) return Result::kDeclined;
    if (!cache->ReadFileAt(start, into.data() + done, end - start)) return Result::kDeclined;
    done += end - start;
  }
  return done == entry->size ? Result::kOk : Result::kDeclined;
}

}  // namespace Tovrel
