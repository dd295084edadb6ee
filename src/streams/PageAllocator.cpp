#include "streams/PageAllocator.h"

#include <algorithm>
#include <cassert>

#include "pagefile/FileDataCorruptException.h"
#include "pagefile/FileIOException.h"
#include "pagefile/InvalidParameterException.h"
#include "pagefile/LittleEndian.h"
#include "pagefile/OutOfMemoryException.h"
#include "pagefile/PageGeometry.h"

namespace Tovrel {

namespace {

// Entries moved per stream call when the table is saved or loaded.
constexpr std::size_t kChunkEntries = 4096;

}  // namespace

PageAllocator::PageAllocator() : highestPage_(kFirstPageId) {}

PageAllocator::~PageAllocator() { Reset(); }

void PageAllocator::Reset() {
  entries_.clear();
  exoticLinks_.clear();
  freeQueue_.clear();
  highestPage_ = kFirstPageId;
}

void PageAllocator::CheckPageId(std::uint64_t page) const {
  if (!IsPageId(page)) throw InvalidParameterException();
}

void PageAllocator::CheckInvariants() const {
  assert(entries_.size() <= kPageLimit + 1);
  assert(exoticLinks_.size() <= entries_.size());
  assert(highestPage_ >= kFirstPageId);
}

std::uint64_t PageAllocator::LinkAt(std::uint64_t index) const {
  const std::uint32_t link = entries_[index].next;
  return link == kExoticLink ? exoticLinks_.at(index) : link;
}

void PageAllocator::SetLink(std::uint64_t index, std::uint64_t link) {
  if (entries_[index].next == kExoticLink) exoticLinks_.erase(index);
  if (link <= kLastPageId) {
    entries_[index].next = static_cast<std::uint32_t>(link);
  } else {
    entries_[index].next = kExoticLink;
    exoticLinks_[index] = link;
  }
}

std::uint64_t PageAllocator::AllocatePage(std::uint64_t previous) {
  CheckInvariants();
  if (!IsPageId(previous)) previous = 0;
  const bool previousInTable = previous != 0 && InTable(previous);

  std::uint64_t page = 0;
  while (!freeQueue_.empty()) {
    const std::uint64_t candidate = freeQueue_.front();
    freeQueue_.pop_front();
    if (!IsPageAllocated(candidate)) {
      page = candidate;
      break;
    }
  }
  if (page == 0) {
    page = entries_.size() + kFirstPageId;
    entries_.push_back(Entry{static_cast<std::uint32_t>(kEndLink), 0});
    if (!IsPageId(page)) throw OutOfMemoryException();
  }
  SetLink(page - kFirstPageId, kEndLink);
  entries_[page - kFirstPageId].previous = 0;
  if (previous != 0) {
    if (!previousInTable || previous == page || LinkAt(previous - kFirstPageId) != kEndLink) {
      throw InvalidParameterException();
    }
    SetLink(previous - kFirstPageId, page);
    entries_[page - kFirstPageId].previous = static_cast<std::uint32_t>(previous);
  }
  highestPage_ = std::max(highestPage_, page);
  return page;
}

void PageAllocator::FreePage(std::uint64_t page) {
  CheckInvariants();
  CheckPageId(page);
  if (!InTable(page)) throw InvalidParameterException();
  const std::uint64_t old = LinkAt(page - kFirstPageId);
  SetLink(page - kFirstPageId, kFreeLink);
  entries_[page - kFirstPageId].previous = 0;
  if (IsPageId(old) && InTable(old)) entries_[old - kFirstPageId].previous = 0;
  freeQueue_.push_back(static_cast<std::uint32_t>(page));
}

bool PageAllocator::ClaimPage(std::uint64_t page) {
  CheckInvariants();
  CheckPageId(page);
  highestPage_ = std::max(highestPage_, page);
  if (InTable(page)) {
    if (LinkAt(page - kFirstPageId) != kFreeLink) return false;
    SetLink(page - kFirstPageId, kEndLink);
    return true;
  }
  for (std::uint64_t id = entries_.size() + kFirstPageId; id < page; ++id) {
    entries_.push_back(Entry{static_cast<std::uint32_t>(kFreeLink), 0});
    freeQueue_.push_back(static_cast<std::uint32_t>(id));
  }
  entries_.push_back(Entry{static_cast<std::uint32_t>(kEndLink), 0});
  return true;
}

bool PageAllocator::IsPageAllocated(std::uint64_t page) {
  CheckPageId(page);
  return InTable(page) && entries_[page - kFirstPageId].next != kFreeLink;
}

std::uint64_t PageAllocator::GetNextPage(std::uint64_t page) {
  CheckPageId(page);
  return InTable(page) ? LinkAt(page - kFirstPageId) : kFreeLink;
}

bool PageAllocator::LoadTable(RefPtr<IDataStream>& stream) {
  Reset();
  if (!stream) throw FileDataCorruptException();
  std::uint8_t bytes[8 * kChunkEntries];
  if (stream->Read(bytes, 8) != 8) throw FileDataCorruptException();
  const std::uint64_t count = LittleEndian::Load64(bytes);
  if (count > kPageLimit) throw FileDataCorruptException();
  entries_.assign(count, Entry{0, 0});
  for (std::uint64_t done = 0; done < count;) {
    const std::uint64_t n = std::min<std::uint64_t>(kChunkEntries, count - done);
    if (stream->Read(bytes, 8 * n) != 8 * n) {
      Reset();
      throw FileDataCorruptException();
    }
    for (std::uint64_t i = 0; i < n; ++i) SetLink(done + i, LittleEndian::Load64(bytes + 8 * i));
    done += n;
  }
  for (std::uint64_t i = 0; i < count; ++i) {
    const std::uint64_t page = kFirstTableId + i;
    const std::uint64_t link = LinkAt(i);
    if (link == kFreeLink) {
      freeQueue_.push_back(static_cast<std::uint32_t>(page));
      continue;
    }
    if (IsPageId(link)) {
      if (!InTable(link) || entries_[link - kFirstPageId].previous != 0) {
        Reset();
        throw FileDataCorruptException();
      }
      entries_[link - kFirstPageId].previous = static_cast<std::uint32_t>(page);
    }
    highestPage_ = std::max(highestPage_, page);
  }
  return true;
}

bool PageAllocator::SaveTable(RefPtr<IDataStream>& stream) {
  if (!stream) throw FileIOException(0);
  std::uint8_t bytes[8 * kChunkEntries];
  LittleEndian::Store64(bytes, entries_.size());
  if (stream->Write(bytes, 8) != 8) throw FileIOException(0);
  for (std::uint64_t done = 0; done < entries_.size();) {
    const std::uint64_t n = std::min<std::uint64_t>(kChunkEntries, entries_.size() - done);
    for (std::uint64_t i = 0; i < n; ++i) LittleEndian::Store64(bytes + 8 * i, LinkAt(done + i));
    if (stream->Write(bytes, 8 * n) != 8 * n) throw FileIOException(0);
    done += n;
  }
  return true;
}

std::uint64_t PageAllocator::MovePage(std::uint64_t from, std::uint64_t to) {
  CheckInvariants();
  CheckPageId(from);
  CheckPageId(to);
  if (!IsPageAllocated(from) || !InTable(to) || IsPageAllocated(to)) throw InvalidParameterException();
  const std::uint64_t next = LinkAt(from - kFirstTableId);
  const std::uint64_t previous = entries_[from - kFirstTableId].previous;
  SetLink(to - kFirstTableId, next);
  entries_[to - kFirstTableId].previous = static_cast<std::uint32_t>(previous);
  if (previous != 0) SetLink(previous - kFirstTableId, to);
  if (IsPageId(next) && InTable(next)) entries_[next - kFirstTableId].previous = static_cast<std::uint32_t>(to);
  SetLink(from - kFirstTableId, kFreeLink);
  entries_[from - kFirstTableId].previous = 0;
  freeQueue_.push_back(static_cast<std::uint32_t>(from));
  highestPage_ = std::max(highestPage_, to);
  return previous;
}

void PageAllocator::CutTable(std::uint64_t length) {
  CheckInvariants();
  if (length > entries_.size()) throw InvalidParameterException();
  for (std::uint64_t i = length; i < entries_.size(); ++i) {
    if (entries_[i].next != kFreeLink) throw InvalidParameterException();
  }
  entries_.resize(length);
  freeQueue_.clear();
  highestPage_ = kFirstTableId;
  for (std::uint64_t i = 0; i < length; ++i) {
    if (entries_[i].next == kFreeLink) {
      freeQueue_.push_back(static_cast<std::uint32_t>(kFirstTableId + i));
    } else {
      highestPage_ = kFirstTableId + i;
    }
  }
}

std::vector<bool> PageAllocator::GetFreePages() const {
  std::vector<bool> free(entries_.size());
  for (std::size_t i = 0; i < entries_.size(); ++i) free[i] = entries_[i].next == kFreeLink;
  return free;
}

}  // namespace Tovrel
