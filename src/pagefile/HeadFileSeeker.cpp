#include "pagefile/HeadFileSeeker.h"

#include <algorithm>

#include "pagefile/FileDataCorruptException.h"
#include "pagefile/InvalidParameterException.h"
#include "pagefile/LittleEndian.h"
#include "pagefile/PageGeometry.h"
#include "pagefile/PageRef.h"

namespace Tovrel {

namespace {

bool IsMarked(const std::vector<std::uint64_t>& bits, std::uint64_t pageId) {
  const std::uint64_t i = pageId - kFirstPageId;
  return i / 64 < bits.size() && (bits[i / 64] >> (i % 64) & 1) != 0;
}

void Mark(std::vector<std::uint64_t>& bits, std::uint64_t pageId) {
  const std::uint64_t i = pageId - kFirstPageId;
  if (i / 64 >= bits.size()) bits.resize(i / 64 + 1, 0);
  bits[i / 64] |= std::uint64_t{1} << (i % 64);
}

}  // namespace

HeadFileSeeker::HeadFileSeeker(FilePageCache* cache) : BaseHeadFileSeeker(cache) {}

bool HeadFileSeeker::OpenForRead() {
  ResetTable();
  seen_.clear();
  consecutive_ = 0;
  PageRef page(cache_);
  const std::uint8_t* data = page.AcquireForRead(kFirstPageId);
  if (data == nullptr) throw FileDataCorruptException();
  const std::uint64_t count = LittleEndian::Load64(data);
  const std::uint64_t size = LittleEndian::Load64(data + 8);
  totalSize = size;
  pageCount = count;
  const auto signedCount = static_cast<std::int64_t>(count);
  if (signedCount < 1 || signedCount > static_cast<std::int64_t>(kPageLimit) || size > count * kPageSize) {
    throw FileDataCorruptException();
  }
  SizeTable(count);
  pageIds_[0] = kFirstPageId;
  ranges_[0] = PageRange{kFirstPageHeader, LittleEndian::Load64(data + 24)};
  nextIds_[0] = LittleEndian::Load64(data + 16);
  if (!ValidatePage(0)) throw FileDataCorruptException();
  return true;
}

void HeadFileSeeker::LoadPagesUpTo(std::uint64_t n) {
  if (n >= pageIds_.size()) throw InvalidParameterException();
  if (pageIds_[n] != 0) return;
  if (lastPrepared_ == 0) Mark(seen_, pageIds_[0]);
  for (std::uint64_t k = lastPrepared_ + 1; k <= n; ++k) {
    try {
      LoadPage(k);
    } catch (...) {
      // Entry k was not prepared: leave it as if it had never been tried.
      pageIds_[k] = 0;
      nextIds_[k] = 0;
      ranges_[k] = PageRange{0, 0};
      throw;
    }
    lastPrepared_ = k;
  }
  lastPrepared_ = n;
}

void HeadFileSeeker::LoadPage(std::uint64_t k) {
  const std::uint64_t id = nextIds_[k - 1];
  if (IsPageId(id) && IsMarked(seen_, id)) throw FileDataCorruptException();
  pageIds_[k] = id;
  consecutive_ = id == pageIds_[k - 1] + 1 ? consecutive_ + 1 : 0;
  if (consecutive_ > 0 && IsPageId(id) && !cache_->IsCached(id)) {
    cache_->Prefetch(id, std::min(2 * consecutive_, pageCount - k));
  }
  PageRef page(cache_);
  const std::uint8_t* data = page.AcquireForRead(id);
  if (data == nullptr) throw FileDataCorruptException();
  nextIds_[k] = LittleEndian::Load64(data);
  ranges_[k] = PageRange{kOtherPageHeader, LittleEndian::Load64(data + 8)};
  if (!ValidatePage(k)) throw FileDataCorruptException();
  Mark(seen_, id);
}

}  // namespace Tovrel
