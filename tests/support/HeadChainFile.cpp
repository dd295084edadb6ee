#include "support/HeadChainFile.h"

#include <algorithm>
#include <stdexcept>

#include "host/RefPtr.h"
#include "pagefile/HeadFileSeeker.h"
#include "pagefile/HeadFileWriteOnlySeeker.h"
#include "pagefile/LittleEndian.h"
#include "pagefile/PageGeometry.h"
#include "pagefile/PageRef.h"
#include "support/TempDir.h"

namespace Tovrel {
namespace Testing {

namespace {

// Moves the chain's bytes between `bytes` and its pages through Locate.
template <typename Copy>
void Walk(FilePageCache& cache, IPagedFileSeeker& seeker, bool forWrite, Copy copy) {
  std::uint64_t position = 0;
  PageRef page(&cache);
  while (position < seeker.totalSize) {
    std::uint64_t index = 0;
    std::uint64_t offset = 0;
    if (!seeker.Locate(index, offset, static_cast<std::int32_t>(position))) {
      throw std::runtime_error("position not locatable");
    }
    std::uint8_t* data = forWrite ? page.AcquireForWrite(seeker.pageIds[index])
                                  : page.AcquireForRead(seeker.pageIds[index]);
    if (data == nullptr) throw std::runtime_error("page not available");
    const std::uint64_t n = std::min(seeker.pageRanges[index].end - offset, seeker.totalSize - position);
    copy(data + offset, position, n);
    position += n;
  }
}

}  // namespace

std::vector<std::uint64_t> HeadChainFile::Layout(std::uint64_t size, const std::vector<std::uint64_t>& others) {
  std::vector<std::uint64_t> ids{kFirstPageId};
  const std::uint64_t count = ChainPagesFor(size);
  for (std::uint64_t i = 1; i < count; ++i) ids.push_back(others.at(i - 1));
  return ids;
}

void HeadChainFile::Write(FilePageCache& cache, const std::vector<std::uint64_t>& ids,
                          const std::vector<std::uint8_t>& payload) {
  std::vector<std::uint64_t> nexts(ids.size(), 0);
  for (std::size_t i = 0; i + 1 < ids.size(); ++i) nexts[i] = ids[i + 1];
  for (std::uint64_t id : ids) cache.EnsureFileCoversPage(id);
  RefPtr<HeadFileWriteOnlySeeker> seeker(new HeadFileWriteOnlySeeker(&cache));
  if (!seeker->InitializeForWrite(ids.data(), nexts.data(), ids.size(), payload.size())) {
    throw std::runtime_error("empty chain");
  }
  Walk(cache, *seeker, true, [&](std::uint8_t* at, std::uint64_t position, std::uint64_t n) {
    std::copy(payload.begin() + static_cast<long>(position), payload.begin() + static_cast<long>(position + n), at);
  });
}

std::vector<std::uint8_t> HeadChainFile::Read(FilePageCache& cache) {
  RefPtr<HeadFileSeeker> seeker(new HeadFileSeeker(&cache));
  seeker->OpenForRead();
  std::vector<std::uint8_t> payload(seeker->totalSize);
  Walk(cache, *seeker, false, [&](std::uint8_t* at, std::uint64_t position, std::uint64_t n) {
    std::copy(at, at + n, payload.begin() + static_cast<long>(position));
  });
  return payload;
}

void HeadChainFile::Patch(const std::wstring& path, std::uint64_t pageId, std::uint64_t offset,
                          std::uint64_t value) {
  auto bytes = TempDir::ReadAll(path);
  const std::uint64_t at = PageOffset(pageId) + offset;
  if (at + 8 > bytes.size()) throw std::runtime_error("patch past the end of the file");
  LittleEndian::Store64(bytes.data() + at, value);
  TempDir::WriteAll(path, bytes);
}

std::vector<std::uint8_t> HeadChainFile::Payload(std::uint64_t size, std::uint32_t seed) {
  std::vector<std::uint8_t> bytes(size);
  std::uint32_t x = seed * 2654435761u + 1;
  for (auto& b : bytes) {
    x ^= x << 13, x ^= x >> 17, x ^= x << 5;
    b = static_cast<std::uint8_t>(x);
  }
  return bytes;
}

}  // namespace Testing
}  // namespace Tovrel
