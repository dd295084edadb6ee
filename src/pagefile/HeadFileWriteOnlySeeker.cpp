#include "pagefile/HeadFileWriteOnlySeeker.h"

#include "pagefile/FileDataCorruptException.h"
#include "pagefile/InvalidParameterException.h"
#include "pagefile/LittleEndian.h"
#include "pagefile/PageGeometry.h"
#include "pagefile/PageRef.h"

namespace Tovrel {

namespace {

// Largest total size a chain may be laid out for: kPageLimit whole pages.
constexpr std::uint64_t kSizeLimit = 0x1FFFEC001;

}  // namespace

HeadFileWriteOnlySeeker::HeadFileWriteOnlySeeker(FilePageCache* cache) : BaseHeadFileSeeker(cache) {}

HeadFileWriteOnlySeeker::~HeadFileWriteOnlySeeker() { ResetTable(); }

bool HeadFileWriteOnlySeeker::InitializeForWrite(const std::uint64_t* ids, const std::uint64_t* nexts,
                                                 std::uint64_t count, std::uint64_t size) {
  if (size == 0) return false;
  if (!(size < kSizeLimit) || count != ChainPagesFor(size) || count == 0 || ids == nullptr ||
      nexts == nullptr || ids[0] != kFirstPageId) {
    throw InvalidParameterException();
  }
  ResetTable();
  totalSize = size;
  pageCount = count;
  SizeTable(count);
  for (std::uint64_t i = 0; i < count; ++i) {
    pageIds_[i] = ids[i];
    nextIds_[i] = nexts[i];
  }
  ranges_[0] = PageRange{kFirstPageHeader, EndOffsetFor(size, 0)};

  PageRef page(cache_);
  std::uint8_t* data = page.AcquireForWrite(pageIds_[0]);
  if (data == nullptr) throw FileDataCorruptException();
  LittleEndian::Store64(data + 8, size);
  LittleEndian::Store64(data, count);
  LittleEndian::Store64(data + 16, nextIds_[0]);
  LittleEndian::Store64(data + 24, ranges_[0].end);
  return true;
}

void HeadFileWriteOnlySeeker::LoadPagesUpTo(std::uint64_t n) {
  if (n >= pageIds_.size()) throw InvalidParameterException();
  if (ranges_[n].begin != 0) return;
  PageRef page(cache_);
  for (std::uint64_t k = lastPrepared_ + 1; k <= n; ++k) {
    std::uint8_t* data = page.AcquireForWrite(pageIds_[k]);
    if (data == nullptr) throw FileDataCorruptException();
    const std::uint64_t end = EndOffsetFor(totalSize, k);
    LittleEndian::Store64(data, nextIds_[k]);
    LittleEndian::Store64(data + 8, end);
    ranges_[k] = PageRange{kOtherPageHeader, end};
    page.Release();
    lastPrepared_ = k;
  }
  lastPrepared_ = n;
}

std::uint64_t HeadFileWriteOnlySeeker::EndOffsetFor(std::uint64_t size, std::uint64_t k) {
  // The first branch answers for any index; with a consistent page count
  // it is only reached for page 0.
  if (size < kFirstPagePayload) return size + kFirstPageHeader;
  if (k == 0) return kPageSize;
  const std::uint64_t covered = kFirstPagePayload + k * kPagePayload;
  return covered > size ? kPageSize - (covered - size) : kPageSize;
}

}  // namespace Tovrel
