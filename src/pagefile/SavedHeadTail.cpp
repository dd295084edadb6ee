#include "pagefile/SavedHeadTail.h"

#include <algorithm>
#include <vector>

#include "pagefile/LittleEndian.h"
#include "pagefile/PageGeometry.h"

namespace Tovrel {

bool SavedHeadTail::FindLastPages(FilePageCache& cache, std::uint64_t* size, Span* last, Span* before) {
  std::uint8_t first[kFirstPageHeader];
  if (!cache.ReadFileBytes(0, first, sizeof first)) return false;
  const std::uint64_t count = LittleEndian::Load64(first);
  *size = LittleEndian::Load64(first + 8);
  std::uint64_t next = LittleEndian::Load64(first + 16);
  const std::uint64_t end = LittleEndian::Load64(first + 24);
  if (count == 0 || count > kPageLimit || *size > count * kPageSize) return false;
  if (end < kFirstPageHeader || end > kPageSize) return false;
  *last = Span{kFirstPageId, kFirstPageHeader, end};
  *before = Span{0, 0, 0};
  std::uint64_t payload = end - kFirstPageHeader;
  std::vector<bool> seen(count > 1 ? kLastPageId + 1 : 0, false);
  if (count > 1) seen[kFirstPageId] = true;
  for (std::uint64_t i = 1; i < count; ++i) {
    if (!IsPageId(next) || seen[next]) return false;
    seen[next] = true;
    std::uint8_t header[kOtherPageHeader];
    if (!cache.ReadFileBytes(PageOffset(next), header, sizeof header)) return false;
    const std::uint64_t pageEnd = LittleEndian::Load64(header + 8);
    if (pageEnd < kOtherPageHeader || pageEnd > kPageSize) return false;
    *before = *last;
    *last = Span{next, kOtherPageHeader, pageEnd};
    payload += pageEnd - kOtherPageHeader;
    next = LittleEndian::Load64(header);
  }
  return next == 0 && payload == *size;
}

bool SavedHeadTail::Read(FilePageCache& cache, std::uint8_t* out, std::uint64_t size) {
  std::uint64_t total = 0;
  Span last{};
  Span before{};
  if (!FindLastPages(cache, &total, &last, &before) || size > total) return false;
  // The bytes lie in the last page, and in the one before it when the last
  // holds fewer (every page but the last is full, so two are enough for
  // anything shorter than a page's payload).
  const std::uint64_t inLast = std::min(size, last.end - last.begin);
  const std::uint64_t inBefore = size - inLast;
  if (inBefore > before.end - before.begin) return false;
  if (inBefore != 0 && !cache.ReadFileBytes(PageOffset(before.page) + before.end - inBefore, out, inBefore)) {
    return false;
  }
  return cache.ReadFileBytes(PageOffset(last.page) + last.end - inLast, out + inBefore, inLast);
}

}  // namespace Tovrel
