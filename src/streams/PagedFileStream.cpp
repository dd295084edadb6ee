#include "streams/PagedFileStream.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <exception>
#include <new>

#include "pagefile/FileDataCorruptException.h"
#include "pagefile/InvalidParameterException.h"
#include "pagefile/PageGeometry.h"

namespace Tovrel {

namespace {

// The value of `position + delta` in signed 32-bit arithmetic.
std::int64_t Wrap32(std::int64_t position, std::uint64_t delta) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(position) + static_cast<std::uint32_t>(delta));
}

}  // namespace

PagedFileStream::PagedFileStream(FilePageCache* cache, RefPtr<IPagedFileSeeker>& seeker)
    : cache_(cache), seeker_(seeker), cursor_{0, 0, 0}, readPage_(cache), writePage_(cache) {
  if (cache_ == nullptr || !seeker_) throw InvalidParameterException();
  if (!seeker_->Locate(cursor_.pageIndex, cursor_.offsetInPage, 0)) throw InvalidParameterException();
}

PagedFileStream::~PagedFileStream() { ReleasePages(); }

void PagedFileStream::CheckInvariants() const {
  assert(seeker_);
  assert(cache_ != nullptr || (readPage_.Data() == nullptr && writePage_.Data() == nullptr));
  assert(cursor_.position == static_cast<std::int32_t>(cursor_.position));
  assert(cursor_.pageIndex <= seeker_->pageCount);
}

std::uint64_t PagedFileStream::GetPosition() { return static_cast<std::uint64_t>(cursor_.position); }

std::uint64_t PagedFileStream::GetSize() { return seeker_->totalSize; }

void PagedFileStream::ReleasePages() {
  readPage_.Release();
  writePage_.Release();
}

void PagedFileStream::DetachFromCache() {
  ReleasePages();
  cache_ = nullptr;
}

void PagedFileStream::Relocate() {
  ReleasePages();
  const auto position = static_cast<std::int32_t>(cursor_.position);
  if (!seeker_->Locate(cursor_.pageIndex, cursor_.offsetInPage, position)) {
    cursor_.position = 0;
    seeker_->Locate(cursor_.pageIndex, cursor_.offsetInPage, 0);
  }
}

bool PagedFileStream::TargetCursor(StreamCursor& next, std::uint32_t origin, std::int32_t offset) {
  if (origin == 0 || origin == 2) {
    const std::uint32_t base = origin == 2 ? static_cast<std::uint32_t>(GetSize()) : 0;
    const auto target = static_cast<std::int32_t>(base + static_cast<std::uint32_t>(offset));
    if (target == static_cast<std::int32_t>(cursor_.position)) {
      next = cursor_;
      return true;
    }
    next.position = target;
    return seeker_->Locate(next.pageIndex, next.offsetInPage, target);
  }
  if (offset == 0) {
    next = cursor_;
    return true;
  }
  next.position = Wrap32(cursor_.position, static_cast<std::uint32_t>(offset));
  const PageCursor from{cursor_.pageIndex, cursor_.offsetInPage};
  return seeker_->Advance(next.pageIndex, next.offsetInPage, from, static_cast<std::uint32_t>(offset));
}

bool PagedFileStream::Seek(std::uint32_t origin, std::int32_t offset) {
  CheckInvariants();
  StreamCursor next = cursor_;
  try {
    if (!TargetCursor(next, origin, offset)) return false;
  } catch (const std::bad_alloc&) {
    throw;  // no memory says nothing of the chain
  } catch (const std::exception&) {
    return false;  // the chain could not be read that far
  }
  if (next.pageIndex != cursor_.pageIndex) ReleasePages();
  cursor_ = next;
  return true;
}

std::uint64_t PagedFileStream::Read(void* buffer, std::uint64_t count) {
  return Transfer(static_cast<std::uint8_t*>(buffer), nullptr, count);
}

std::uint64_t PagedFileStream::Write(const void* buffer, std::uint64_t count) {
  return Transfer(nullptr, static_cast<const std::uint8_t*>(buffer), count);
}

bool PagedFileStream::HoldCurrentPage(PageRef& held, bool forWrite, std::uint64_t bytes) {
  if (held.Data() != nullptr) return true;
  if (cursor_.pageIndex < seeker_->pageCount) {
    seeker_->LoadPagesUpTo(cursor_.pageIndex);
    const std::uint64_t id = seeker_->pageIds[cursor_.pageIndex];
    const PageRange& range = seeker_->pageRanges[cursor_.pageIndex];
    if (forWrite && cursor_.offsetInPage == 0 && range.begin == 0 && range.end == kPageSize &&
        bytes >= kPageSize) {
      held.AcquireToOverwrite(id);  // the whole page is written: its old bytes need not be read
    } else if (forWrite) {
      held.AcquireForWrite(id);
    } else {
      if (!cache_->IsCached(id)) cache_->Prefetch(id, PagesAhead(bytes));
      held.AcquireForRead(id);
    }
  } else {
    held.Release();
  }
  return held.Data() != nullptr;
}

std::uint64_t PagedFileStream::PagesAhead(std::uint64_t bytes) const {
  // The pages from the cursor's on that follow each other in the file and
  // hold the next `bytes` bytes.
  const std::uint64_t first = cursor_.pageIndex;
  std::uint64_t covered = seeker_->pageRanges[first].end - cursor_.offsetInPage;
  std::uint64_t n = 1;
  while (covered < bytes && first + n < seeker_->pageCount &&
         seeker_->pageIds[first + n] == seeker_->pageIds[first] + n) {
    covered += seeker_->pageRanges[first + n].end - seeker_->pageRanges[first + n].begin;
    ++n;
  }
  return n;
}

bool PagedFileStream::StepToNextPage() {
  if (cursor_.pageIndex + 1 >= seeker_->pageCount) return false;
  ReleasePages();
  const std::uint64_t next = cursor_.pageIndex + 1;
  seeker_->LoadPagesUpTo(next);
  cursor_.pageIndex = next;
  cursor_.offsetInPage = seeker_->pageRanges[next].begin;
  return true;
}

std::uint64_t PagedFileStream::Transfer(std::uint8_t* readInto, const std::uint8_t* writeFrom,
                                        std::uint64_t count) {
  CheckInvariants();
  if (cache_ == nullptr || seeker_->pageCount == 0 || count == 0) return 0;
  const bool forWrite = writeFrom != nullptr;
  PageRef& held = forWrite ? writePage_ : readPage_;
  std::uint64_t done = 0;
  try {
    while (done < count) {
      if (!forWrite && held.Data() == nullptr) {
        const std::uint64_t direct = ReadWholePages(readInto + done, count - done);
        done += direct;
        if (direct != 0) continue;
      }
      if (!HoldCurrentPage(held, forWrite, count - done)) break;
      seeker_->LoadPagesUpTo(cursor_.pageIndex);
      const std::uint64_t end = seeker_->pageRanges[cursor_.pageIndex].end;
      const std::uint64_t offset = cursor_.offsetInPage;
      const std::uint64_t n = end > offset ? std::min(count - done, end - offset) : 0;
      if (forWrite) {
        std::memcpy(held.Data() + offset, writeFrom + done, n);
      } else {
        std::memcpy(readInto + done, held.Data() + offset, n);
      }
      cursor_.offsetInPage += n;
      cursor_.position = Wrap32(cursor_.position, n);
      done += n;
      if (cursor_.offsetInPage >= end && !StepToNextPage()) break;
    }
  } catch (const std::bad_alloc&) {
    throw;  // no memory is not the end of the stream
  } catch (const std::exception&) {
    // A page that could not be had ends the transfer, as a missing one does.
  }
  return done;
}

std::uint64_t PagedFileStream::ReadWholePages(std::uint8_t* into, std::uint64_t count) {
  // Pages read this way bypass the cache: a reader going through a large
  // stream copies each byte once and leaves the cache as it was.
  const std::uint64_t first = cursor_.pageIndex;
  if (cursor_.offsetInPage != 0 || count < kPageSize || first >= seeker_->pageCount) return 0;
  std::uint64_t n = 0;
  for (; n < count / kPageSize && first + n < seeker_->pageCount; ++n) {
    seeker_->LoadPagesUpTo(first + n);
    const PageRange& range = seeker_->pageRanges[first + n];
    if (range.begin != 0 || range.end != kPageSize || seeker_->pageIds[first + n] != seeker_->pageIds[first] + n) {
      break;
    }
  }
  if (n == 0) return 0;
  const std::uint64_t read = cache_->ReadUncached(seeker_->pageIds[first], n, into);
  if (read == 0) return 0;
  // The cursor ends where a transfer through the cache would leave it: at
  // the end of the last page read, then on the next page if there is one.
  cursor_.position = Wrap32(cursor_.position, read * kPageSize);
  cursor_.pageIndex = first + read - 1;
  cursor_.offsetInPage = kPageSize;
  StepToNextPage();
  return read * kPageSize;
}

std::uint64_t PagedFileStream::BytesLeftInPage(const PageCursor& at) const {
  if (at.pageIndex >= seeker_->pageCount) return 0;
  const std::uint64_t end = seeker_->pageRanges[at.pageIndex].end;
  return end > at.offsetInPage ? end - at.offsetInPage : 0;
}

void PagedFileStream::MoveBytes(PageCursor& destination, PageCursor& source, std::uint64_t n) {
  // Through a buffer, so that a cache of a single page can serve both ends
  // and overlapping ranges move correctly.
  std::uint8_t buffer[kPageSize];
  {
    PageRef from(cache_);
    const std::uint8_t* data = from.AcquireForRead(seeker_->pageIds[source.pageIndex]);
    if (data == nullptr) throw FileDataCorruptException();
    std::memcpy(buffer, data + source.offsetInPage, n);
  }
  PageRef to(cache_);
  std::uint8_t* data = to.AcquireForWrite(seeker_->pageIds[destination.pageIndex]);
  if (data == nullptr) throw FileDataCorruptException();
  std::memcpy(data + destination.offsetInPage, buffer, n);
}

bool PagedFileStream::RemoveRange(std::int32_t position, std::uint32_t count) {
  CheckInvariants();
  if (cache_ == nullptr) return false;
  ReleasePages();  // the bytes move under them, and a small cache needs the room
  PageCursor destination{cursor_.pageIndex, cursor_.offsetInPage};
  if (position != static_cast<std::int32_t>(cursor_.position) &&
      !seeker_->Locate(destination.pageIndex, destination.offsetInPage, position)) {
    return false;
  }
  PageCursor source = destination;
  if (count != 0 && !seeker_->Advance(source.pageIndex, source.offsetInPage, destination, count)) return false;
  for (;;) {
    if (source.pageIndex + 1 >= seeker_->pageCount) {
      seeker_->LoadPagesUpTo(source.pageIndex);
      if (source.offsetInPage >= seeker_->pageRanges[source.pageIndex].end) break;
    }
    const std::uint64_t n = std::min(BytesLeftInPage(destination), BytesLeftInPage(source));
    if (n == 0) break;
    MoveBytes(destination, source, n);
    PageCursor next{};
    if (seeker_->Advance(next.pageIndex, next.offsetInPage, destination, static_cast<std::uint32_t>(n))) {
      destination = next;
    }
    if (!seeker_->Advance(next.pageIndex, next.offsetInPage, source, static_cast<std::uint32_t>(n))) break;
    source = next;
  }
  return Seek(0, position);
}

}  // namespace Tovrel
