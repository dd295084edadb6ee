#include "pagefile/BaseHeadFileSeeker.h"

#include <cassert>

#include "pagefile/PageGeometry.h"

namespace Tovrel {

BaseHeadFileSeeker::BaseHeadFileSeeker(FilePageCache* cache) : cache_(cache), lastPrepared_(0) {}

void BaseHeadFileSeeker::ResetTable() {
  pageIds_.clear();
  nextIds_.clear();
  ranges_.clear();
  lastPrepared_ = 0;
  totalSize = 0;
  pageCount = 0;
  pageIds = nullptr;
  pageRanges = nullptr;
}

void BaseHeadFileSeeker::SizeTable(std::uint64_t count) {
  pageIds_.Zero(count);
  nextIds_.Zero(count);
  ranges_.Zero(count);
  pageIds = pageIds_.data();
  pageRanges = ranges_.data();
}

void BaseHeadFileSeeker::CheckInvariants() const {
  assert(pageIds_.size() == nextIds_.size() && pageIds_.size() == ranges_.size());
  assert(pageIds_.empty() || (pageIds == pageIds_.data() && pageRanges == ranges_.data()));
  assert(pageIds_.empty() || lastPrepared_ < pageIds_.size());
}

bool BaseHeadFileSeeker::ValidatePage(std::uint64_t i) {
  if (i >= pageIds_.size() || !IsPageId(pageIds_[i])) return false;
  const PageRange& range = ranges_[i];
  if (!(range.begin < range.end && range.end <= kPageSize)) return false;
  if (nextIds_[i] != 0) {
    const std::uint64_t full = i == 0 ? kFirstPagePayload : kPagePayload;
    if (range.end - range.begin != full) return false;
  }
  return true;
}

bool BaseHeadFileSeeker::Locate(std::uint64_t& pageIndex, std::uint64_t& offsetInPage,
                                std::int32_t position) {
  CheckInvariants();
  pageIndex = 0;
  offsetInPage = 0;
  const auto sizeLow = static_cast<std::int32_t>(static_cast<std::uint32_t>(totalSize));
  if (pageIds_.empty() || position < 0 || position > sizeLow) return false;

  const std::uint64_t firstLength = ranges_[0].end - ranges_[0].begin;
  const auto p = static_cast<std::uint64_t>(position);
  if (p < firstLength) {
    offsetInPage = ranges_[0].begin + p;
    return true;
  }
  const std::uint64_t q = p - firstLength;
  const std::uint64_t j = q / kPagePayload;
  if (j + 1 < pageIds_.size()) {
    LoadPagesUpTo(j + 1);
    const std::uint64_t offset = ranges_[j + 1].begin + (q - j * kPagePayload);
    if (offset > ranges_[j + 1].end) return false;
    pageIndex = j + 1;
    offsetInPage = offset;
    return true;
  }
  if (q == j * kPagePayload && j < pageIds_.size()) {
    // The end of the data on a page boundary: the end of page j, which is
    // prepared like every page handed out.
    LoadPagesUpTo(j);
    pageIndex = j;
    offsetInPage = ranges_[j].end;
    return true;
  }
  return false;
}

bool BaseHeadFileSeeker::Advance(std::uint64_t& pageIndex, std::uint64_t& offsetInPage,
                                 const PageCursor& from, std::uint32_t delta) {
  CheckInvariants();
  if (pageIds_.empty() || from.pageIndex >= pageIds_.size() ||
      from.offsetInPage > ranges_[from.pageIndex].end) {
    return false;
  }
  LoadPagesUpTo(from.pageIndex);
  std::uint32_t position = static_cast<std::uint32_t>(from.offsetInPage - ranges_[from.pageIndex].begin);
  if (from.pageIndex != 0) {
    position += static_cast<std::uint32_t>(from.pageIndex * kPagePayload - kOtherPageHeader);
  }
  position += delta;
  return Locate(pageIndex, offsetInPage, static_cast<std::int32_t>(position));
}

}  // namespace Tovrel
