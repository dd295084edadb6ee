#include "pagefile/FilePageCache.h"

#include <cassert>
#include <cerrno>
#include <cstring>
#include <memory>

#include "pagefile/FileIOException.h"
#include "pagefile/InvalidParameterException.h"
#include "pagefile/PageFileIO.h"
#include "platform/PlatformFile.h"

namespace Tovrel {

FilePageCache::FilePageCache(const wchar_t* path, std::uint64_t capacity)
    : file_(nullptr),
      fileLength_(0),
      capacity_(1),
      count_(0),
      mostRecent_(nullptr),
      leastRecent_(nullptr),
      zerosFrom_(0) {
  Open(path, capacity);
}

FilePageCache::~FilePageCache() {
  try {
    Close();
  } catch (...) {
    // The file could not take every written page; nothing is left to do
    // with them, and a destructor must not throw.
    FreeAllPages();
    CloseFile();
  }
}

bool FilePageCache::Open(const wchar_t* path, std::uint64_t capacity) {
  Close();
  std::FILE* file = PlatformFile::Open(path, "r+b");
  if (file == nullptr) file = PlatformFile::Open(path, "w+b");
  if (file == nullptr) throw FileIOException(errno);
  std::uint64_t length = 0;
  try {
    length = PageFileIO::GetFileLength(file);
  } catch (...) {
    PlatformFile::Close(file);
    throw;
  }
  file_ = file;
  fileLength_ = length;
  zerosFrom_ = length;
  capacity_ = capacity == 0 ? 1 : capacity;
  count_ = 0;
  mostRecent_ = leastRecent_ = nullptr;
  return true;
}

void FilePageCache::Close() {
  CheckInvariants();
  for (CachedPage* page : index_) {
    if (page != nullptr) WriteBack(page);
  }
  FreeAllPages();
  CloseFile();
}

void FilePageCache::CloseFile() {
  std::FILE* file = file_;
  file_ = nullptr;
  fileLength_ = 0;
  zerosFrom_ = 0;
  capacity_ = 1;
  if (file == nullptr) return;
  const bool flushed = PlatformFile::Flush(file) == 0;
  const int flushError = errno;
  const bool closed = PlatformFile::Close(file) == 0;
  if (!flushed) throw FileIOException(flushError);
  if (!closed) throw FileIOException(errno);
}

void FilePageCache::DiscardAll() {
  CheckInvariants();
  FreeAllPages();
}

void FilePageCache::FreeAllPages() {
  for (CachedPage*& page : index_) {
    delete page;
    page = nullptr;
  }
  index_.clear();
  count_ = 0;
  mostRecent_ = leastRecent_ = nullptr;
}

std::uint8_t* FilePageCache::GetPage(std::uint64_t pageId, bool forRead) {
  assert(capacity_ >= 1 || file_ == nullptr);
  if (!IsPageId(pageId)) return nullptr;
  const std::uint64_t idx = pageId - kFirstPageId;
  if (idx >= index_.size()) index_.resize(idx + 1, nullptr);
  if (CachedPage* page = index_[idx]) {
    Unlink(page);
    PushMostRecent(page);
    ++page->pinCount;
    if (!forRead) page->dirty = 1;
    return page->data;
  }
  if (capacity_ == 0) throw InvalidParameterException();
  if (!CanEvictDownTo(capacity_ - 1)) return nullptr;

  // The new page is loaded before anything is evicted, so that a failed
  // file call leaves the cached pages exactly as they were.
  std::unique_ptr<CachedPage> page(new CachedPage);
  page->index = idx;
  page->pinCount = 1;
  page->dirty = forRead ? 0 : 1;
  page->older = page->newer = nullptr;
  if (!forRead) EnsureFileCoversPage(pageId);
  const std::uint64_t offset = idx * kPageSize;
  if (offset >= zerosFrom_ && offset + kPageSize <= fileLength_) {
    // The page was appended as zeros and not written since: its image is
    // known without reading it back.
    std::memset(page->data, 0, kPageSize);
  } else if (!PageFileIO::ReadPage(file_, fileLength_, page->data, idx * kPageSize)) {
    return nullptr;
  }
  EvictDownTo(capacity_ - 1);
  index_[idx] = page.get();
  PushMostRecent(page.release());
  return index_[idx]->data;
}

void FilePageCache::EnsureFileCoversPage(std::uint64_t pageId) {
  const std::uint64_t needed = pageId * kPageSize - kFirstPageId * kPageSize + kPageSize;
  if (needed > fileLength_) {
    PageFileIO::ExtendFile(file_, needed);
    fileLength_ = needed;
  }
}

void FilePageCache::UnpinPage(std::uint64_t pageId) {
  const std::uint64_t idx = pageId - kFirstPageId;
  if (idx < kPageLimit && idx < index_.size() && index_[idx] != nullptr) --index_[idx]->pinCount;
}

int FilePageCache::GetPinCount(std::uint64_t pageId) const {
  const CachedPage* page = Find(pageId);
  return page == nullptr ? -1 : page->pinCount;
}

std::vector<std::uint64_t> FilePageCache::GetRecencyOrder() const {
  std::vector<std::uint64_t> order;
  for (const CachedPage* p = leastRecent_; p != nullptr; p = p->newer) {
    order.push_back(p->index + kFirstPageId);
  }
  return order;
}

FilePageCache::CachedPage* FilePageCache::Find(std::uint64_t pageId) const {
  const std::uint64_t idx = pageId - kFirstPageId;
  if (!IsPageId(pageId) || idx >= index_.size()) return nullptr;
  return index_[idx];
}

bool FilePageCache::CanEvictDownTo(std::uint64_t bound) const {
  std::uint64_t left = count_;
  for (const CachedPage* p = leastRecent_; p != nullptr && left > bound; p = p->newer) {
    if (p->pinCount < 1) --left;
  }
  return left <= bound;
}

bool FilePageCache::EvictDownTo(std::uint64_t bound) {
  CachedPage* page = leastRecent_;
  while (page != nullptr && count_ > bound) {
    CachedPage* next = page->newer;
    if (page->pinCount < 1) {
      WriteBack(page);
      index_[page->index] = nullptr;
      Unlink(page);
      delete page;
    }
    page = next;
  }
  return count_ <= bound;
}

void FilePageCache::WriteBack(CachedPage* page) {
  if (page->dirty == 0) return;
  const std::uint64_t offset = page->index * kPageSize;
  PageFileIO::WritePage(file_, fileLength_, page->data, offset);
  if (offset + kPageSize > zerosFrom_) zerosFrom_ = offset + kPageSize;
  page->dirty = 0;
}

void FilePageCache::PushMostRecent(CachedPage* page) {
  page->newer = nullptr;
  page->older = mostRecent_;
  if (mostRecent_ != nullptr) mostRecent_->newer = page;
  mostRecent_ = page;
  if (leastRecent_ == nullptr) leastRecent_ = page;
  ++count_;
}

void FilePageCache::Unlink(CachedPage* page) {
  if (page->older != nullptr) page->older->newer = page->newer;
  if (page->newer != nullptr) page->newer->older = page->older;
  if (mostRecent_ == page) mostRecent_ = page->older;
  if (leastRecent_ == page) leastRecent_ = page->newer;
  page->older = page->newer = nullptr;
  --count_;
}

void FilePageCache::CheckInvariants() const {
#ifndef NDEBUG
  assert(capacity_ >= 1);
  if (file_ == nullptr) {
    assert(count_ == 0 && fileLength_ == 0);
  }
  std::uint64_t walked = 0;
  const CachedPage* previous = nullptr;
  for (const CachedPage* p = leastRecent_; p != nullptr; p = p->newer) {
    assert(p->older == previous);
    assert(p->index < index_.size() && index_[p->index] == p);
    assert(p->dirty == 0 || p->index * kPageSize < fileLength_);
    previous = p;
    ++walked;
  }
  assert(previous == mostRecent_);
  assert(walked == count_);
  std::uint64_t indexed = 0;
  for (const CachedPage* p : index_) indexed += p != nullptr ? 1 : 0;
  assert(indexed == count_);
  (void)walked;
  (void)indexed;
#endif
}

}  // namespace Tovrel
