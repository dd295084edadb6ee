#include "pagefile/ChildFileSeeker.h"

#include <algorithm>
#include <cassert>

#include "pagefile/FileDataCorruptException.h"
#include "pagefile/InvalidParameterException.h"
#include "pagefile/PageGeometry.h"

namespace Tovrel {

namespace {

constexpr std::uint64_t kPageShift = 13;
constexpr std::uint64_t kOffsetMask = kPageSize - 1;

}  // namespace

ChildFileSeeker::ChildFileSeeker() : tailPageCount_(0), entry_{}, tail_{} {}

ChildFileSeeker::~ChildFileSeeker() {
  allocator_.Reset();
  pageIds_.clear();
  ranges_.clear();
}

void ChildFileSeeker::Reset() {
  allocator_.Reset();
  pageIds_.clear();
  ranges_.clear();
  entry_ = StreamEntry{};
  tail_ = TailLocation{};
  totalSize = 0;
  pageCount = 0;
  pageIds = nullptr;
  pageRanges = nullptr;
  tailPageCount_ = 0;
}

void ChildFileSeeker::CheckInvariants() const {
  assert(pageCount == 0 || (pageIds == pageIds_.data() && pageRanges == ranges_.data()));
  assert(pageCount == 0 || (pageIds_.size() == pageCount && ranges_.size() == pageCount));
  assert(pageCount == 0 || pageCount == entry_.fullPageCount + tailPageCount_);
  assert(tailPageCount_ <= 2);
}

bool ChildFileSeeker::AttachStream(IPageAllocator* allocator, const StreamEntry& entry,
                                   const TailLocation& tail) {
  Reset();
  allocator_ = allocator;
  entry_ = entry;
  tail_ = tail;
  try {
    const std::uint64_t n = entry.fullPageCount;
    // n + 2 < 0xFFFF7, written so that no n can wrap around.
    if (!(n < kPageLimit - 1) || entry.size > (n + 2) * kPageSize ||
        entry.size != n * kPageSize + tail.size || allocator == nullptr) {
      throw FileDataCorruptException();
    }
    BuildWholePages();
    if (tail.size != 0) AppendTail();
    if (pageIds_.empty()) throw FileDataCorruptException();
    CheckNoPageTwice();
  } catch (...) {
    totalSize = 0;
    pageCount = 0;
    pageIds = nullptr;
    pageRanges = nullptr;
    tailPageCount_ = 0;
    throw;
  }
  totalSize = entry.size;
  pageCount = pageIds_.size();
  pageIds = pageIds_.data();
  pageRanges = ranges_.data();
  CheckInvariants();
  return true;
}

bool ChildFileSeeker::MoveTail(const TailLocation& tail) {
  const RefPtr<IPageAllocator> allocator = allocator_;
  const StreamEntry entry = entry_;
  return AttachStream(allocator.Get(), entry, tail);
}

void ChildFileSeeker::BuildWholePages() {
  const std::uint64_t n = entry_.fullPageCount;
  pageIds_.reserve(n + 2);
  ranges_.reserve(n + 2);
  std::uint64_t id = entry_.firstPage;
  for (std::uint64_t i = 0; i < n; ++i) {
    if (!IsPageId(id)) throw FileDataCorruptException();
    pageIds_.push_back(id);
    ranges_.push_back(PageRange{0, kPageSize});
    id = allocator_->GetNextPage(id);
  }
}

void ChildFileSeeker::AppendTail() {
  if (!IsPageId(tail_.firstPage) || tail_.offsetInPage >= kPageSize) throw FileDataCorruptException();
  const std::uint64_t end = tail_.offsetInPage + tail_.size;
  pageIds_.push_back(tail_.firstPage);
  if (end < kPageSize) {
    ranges_.push_back(PageRange{tail_.offsetInPage, end});
    tailPageCount_ = 1;
    return;
  }
  ranges_.push_back(PageRange{tail_.offsetInPage, kPageSize});
  if (tail_.secondPage != 0) {
    if (allocator_->GetNextPage(tail_.firstPage) != tail_.secondPage) throw FileDataCorruptException();
  } else if (end > kPageSize) {
    throw FileDataCorruptException();
  }
  pageIds_.push_back(tail_.secondPage);
  ranges_.push_back(PageRange{0, end - kPageSize});
  tailPageCount_ = 2;
}

void ChildFileSeeker::CheckNoPageTwice() const {
  // A chain that runs into itself would make the stream read and write its
  // own pages twice; the tail's pages belong to child files, never to the
  // stream's whole pages.
  std::vector<std::uint64_t> sorted;
  sorted.reserve(pageIds_.size());
  for (std::uint64_t id : pageIds_) {
    if (id != 0) sorted.push_back(id);
  }
  std::sort(sorted.begin(), sorted.end());
  if (std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end()) throw FileDataCorruptException();
}

void ChildFileSeeker::LoadPagesUpTo(std::uint64_t) {}

std::uint64_t ChildFileSeeker::PositionOf(std::uint64_t index, std::uint64_t offset) const {
  if (index > pageCount) throw InvalidParameterException();
  const std::uint64_t n = entry_.fullPageCount;
  if (index == pageCount) return totalSize;
  if (index < n) return index * kPageSize + offset;
  if (index == n) return n * kPageSize - ranges_[n].begin + offset;
  const PageRange& first = ranges_[index - 1];
  return n * kPageSize + (first.end - first.begin) - ranges_[index].begin + offset;
}

bool ChildFileSeeker::Locate(std::uint64_t& pageIndex, std::uint64_t& offsetInPage, std::int32_t position) {
  CheckInvariants();
  pageIndex = 0;
  offsetInPage = 0;
  const auto sizeLow = static_cast<std::int32_t>(static_cast<std::uint32_t>(totalSize));
  if (pageCount == 0 || position < 0 || position > sizeLow) return false;
  std::uint64_t index = static_cast<std::uint64_t>(position) >> kPageShift;
  std::uint64_t offset = static_cast<std::uint64_t>(position) & kOffsetMask;
  if (entry_.fullPageCount <= index && index < pageCount) {
    const std::uint64_t length = ranges_[index].end - ranges_[index].begin;
    if (offset >= length) {
      ++index;
      offset -= length;
    } else {
      offset += ranges_[index].begin;
    }
  }
  if (index < pageCount) {
    pageIndex = index;
    offsetInPage = offset;
    return true;
  }
  if (offset != 0) return false;
  pageIndex = index - 1;
  offsetInPage = ranges_[index - 1].end;
  return true;
}

bool ChildFileSeeker::Advance(std::uint64_t& pageIndex, std::uint64_t& offsetInPage, const PageCursor& from,
                              std::uint32_t delta) {
  if (from.pageIndex > pageCount) {
    pageIndex = 0;
    offsetInPage = 0;
    return false;
  }
  const auto position = static_cast<std::uint32_t>(PositionOf(from.pageIndex, from.offsetInPage)) + delta;
  return Locate(pageIndex, offsetInPage, static_cast<std::int32_t>(position));
}

bool ChildFileSeeker::LocateTail(TailLocation& out, const IChildFileLookup& table, std::uint64_t tailId) {
  out = TailLocation{};
  const StreamTailRecord* record = table.FindTail(tailId);
  if (record == nullptr) return true;
  const ChildFileRecord* child = table.FindChildFile(record->childFileIdentifier);
  if (child == nullptr) throw FileDataCorruptException();
  const std::uint64_t childPage = record->offset >> kPageShift;
  if (!(childPage < kChildFilePages) || !(record->size < kPageSize) || child->freeBytes > kChildFileSize ||
      record->offset + record->size > kChildFileSize - child->freeBytes) {
    throw FileDataCorruptException();
  }
  out.firstPage = child->page[childPage];
  out.secondPage = childPage < kChildFilePages - 1 ? child->page[childPage + 1] : 0;
  out.offsetInPage = record->offset & kOffsetMask;
  out.size = record->size;
  if (out.offsetInPage + out.size <= kPageSize) out.secondPage = 0;
  return true;
}

}  // namespace Tovrel
