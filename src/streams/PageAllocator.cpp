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
  nextLinks_.clear();
  previousLinks_.clear();
  freeQueue_.clear();
  highestPage_ = kFirstPageId;
}

void PageAllocator::CheckPageId(std::uint64_t page) const {
  if (!IsPageId(page)) throw InvalidParameterException();
}

void PageAllocator::CheckInvariants() const {
  assert(previousLinks_.size() == nextLinks_.size());
  assert(nextLinks_.size() <= kPageLimit + 1);
  assert(highestPage_ >= kFirstPageId);
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
    page = nextLinks_.size() + kFirstPageId;
    nextLinks_.push_back(kEndLink);
    previousLinks_.push_back(0);
    if (!IsPageId(page)) throw OutOfMemoryException();
  }
  nextLinks_[page - kFirstPageId] = kEndLink;
  previousLinks_[page - kFirstPageId] = 0;
  if (previous != 0) {
    if (!previousInTable || previous == page || nextLinks_[previous - kFirstPageId] != kEndLink) {
      throw InvalidParameterException();
    }
    nextLinks_[previous - kFirstPageId] = page;
    previousLinks_[page - kFirstPageId] = previous;
  }
  highestPage_ = std::max(highestPage_, page);
  return page;
}

void PageAllocator::FreePage(std::uint64_t page) {
  CheckInvariants();
  CheckPageId(page);
  if (!InTable(page)) throw InvalidParameterException();
  const std::uint64_t old = nextLinks_[page - kFirstPageId];
  nextLinks_[page - kFirstPageId] = kFreeLink;
  previousLinks_[page - kFirstPageId] = 0;
  if (IsPageId(old) && InTable(old)) previousLinks_[old - kFirstPageId] = 0;
  freeQueue_.push_back(page);
}

bool PageAllocator::ClaimPage(std::uint64_t page) {
  CheckInvariants();
  CheckPageId(page);
  highestPage_ = std::max(highestPage_, page);
  if (InTable(page)) {
    if (nextLinks_[page - kFirstPageId] != kFreeLink) return false;
    nextLinks_[page - kFirstPageId] = kEndLink;
    return true;
  }
  for (std::uint64_t id = nextLinks_.size() + kFirstPageId; id < page; ++id) {
    nextLinks_.push_back(kFreeLink);
    previousLinks_.push_back(0);
    freeQueue_.push_back(id);
  }
  nextLinks_.push_back(kEndLink);
  previousLinks_.push_back(0);
  return true;
}

bool PageAllocator::IsPageAllocated(std::uint64_t page) {
  CheckPageId(page);
  return InTable(page) && nextLinks_[page - kFirstPageId] != kFreeLink;
}

std::uint64_t PageAllocator::GetNextPage(std::uint64_t page) {
  CheckPageId(page);
  return InTable(page) ? nextLinks_[page - kFirstPageId] : kFreeLink;
}

bool PageAllocator::LoadTable(RefPtr<IDataStream>& stream) {
  Reset();
  if (!stream) throw FileDataCorruptException();
  std::uint8_t bytes[8 * kChunkEntries];
  if (stream->Read(bytes, 8) != 8) throw FileDataCorruptException();
  const std::uint64_t count = LittleEndian::Load64(bytes);
  if (count > kPageLimit) throw FileDataCorruptException();
  nextLinks_.resize(count);
  for (std::uint64_t done = 0; done < count;) {
    const std::uint64_t n = std::min<std::uint64_t>(kChunkEntries, count - done);
    if (stream->Read(bytes, 8 * n) != 8 * n) {
      Reset();
      throw FileDataCorruptException();
    }
    for (std::uint64_t i = 0; i < n; ++i) nextLinks_[done + i] = LittleEndian::Load64(bytes + 8 * i);
    done += n;
  }
  previousLinks_.assign(count, 0);
  for (std::uint64_t i = 0; i < count; ++i) {
    const std::uint64_t page = kFirstTableId + i;
    const std::uint64_t link = nextLinks_[i];
    if (link == kFreeLink) {
      freeQueue_.push_back(page);
      continue;
    }
    if (IsPageId(link)) {
      if (!InTable(link) || previousLinks_[link - kFirstPageId] != 0) {
        Reset();
        throw FileDataCorruptException();
      }
      previousLinks_[link - kFirstPageId] = page;
    }
    highestPage_ = std::max(highestPage_, page);
  }
  return true;
}

bool PageAllocator::SaveTable(RefPtr<IDataStream>& stream) {
  if (!stream) throw FileIOException(0);
  std::uint8_t bytes[8 * kChunkEntries];
  LittleEndian::Store64(bytes, nextLinks_.size());
  if (stream->Write(bytes, 8) != 8) throw FileIOException(0);
  for (std::uint64_t done = 0; done < nextLinks_.size();) {
    const std::uint64_t n = std::min<std::uint64_t>(kChunkEntries, nextLinks_.size() - done);
    for (std::uint64_t i = 0; i < n; ++i) LittleEndian::Store64(bytes + 8 * i, nextLinks_[done + i]);
    if (stream->Write(bytes, 8 * n) != 8 * n) throw FileIOException(0);
    done += n;
  }
  return true;
}

}  // namespace Tovrel
