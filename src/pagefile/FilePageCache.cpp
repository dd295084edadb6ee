#include "pagefile/FilePageCache.h"

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <iterator>
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
      zerosFrom_(0),
      savedLength_(0),
      savedFreeKnown_(false),
      access_(Access::kUpdate),
      journaling_(true) {
  Open(path, capacity);
}

FilePageCache::FilePageCache(const wchar_t* path, std::uint64_t capacity, Access access)
    : file_(nullptr),
      fileLength_(0),
      capacity_(1),
      count_(0),
      mostRecent_(nullptr),
      leastRecent_(nullptr),
      zerosFrom_(0),
      savedLength_(0),
      savedFreeKnown_(false),
      access_(access),
      journaling_(true) {
  if (access == Access::kReadOnly) {
    OpenReadOnly(path, capacity);
  } else {
    Open(path, capacity);
  }
}

FilePageCache::~FilePageCache() {
  try {
    Close();
  } catch (...) {
    // The file could not take every written page; the journal stays behind
    // and the next opener rolls the file back to its saved state.
    FreeAllPages();
    journal_.Abandon();
    try {
      CloseFile();
    } catch (...) {
      // Closed all the same; a destructor must not throw.
    }
  }
  EndSavedImages();
}

bool FilePageCache::Open(const wchar_t* path, std::uint64_t capacity) {
  Close();
  FileHandle* file = PlatformFile::Open(path, "r+b");
  if (file == nullptr) {
    // "w+b" would empty a file that exists but failed to open: only a
    // missing file is created.
    const int error = errno;
    if (PlatformFile::Exists(path)) throw FileIOException(error);
    file = PlatformFile::Open(path, "w+b");
  }
  if (file == nullptr) throw FileIOException(errno);
  try {
    RollbackJournal::Recover(path, file);
    Adopt(file, path, PageFileIO::GetFileLength(file), Access::kUpdate, capacity);
  } catch (...) {
    if (file_ != file) PlatformFile::Close(file);
    throw;
  }
  return true;
}

bool FilePageCache::OpenReadOnly(const wchar_t* path, std::uint64_t capacity) {
  Close();
  FileHandle* file = PlatformFile::Open(path, "rb");
  if (file == nullptr) throw FileIOException(errno);
  try {
    std::uint64_t length = PageFileIO::GetFileLength(file);
    std::map<std::uint64_t, std::vector<std::uint8_t>> images;
    ReadJournalImages(path, &length, &images);
    Adopt(file, path, length, Access::kReadOnly, capacity);
    journalImages_.swap(images);
  } catch (...) {
    if (file_ != file) PlatformFile::Close(file);
    throw;
  }
  return true;
}

void FilePageCache::ReadJournalImages(const std::wstring& path, std::uint64_t* length,
                                      std::map<std::uint64_t, std::vector<std::uint8_t>>* images) {
  const std::wstring journalPath = RollbackJournal::PathFor(path);
  if (!PlatformFile::Exists(journalPath.c_str())) return;
  FileHandle* journal = PlatformFile::Open(journalPath.c_str(), "rb");
  if (journal == nullptr) return;  // gone in the meantime, or not ours to read
  std::vector<std::pair<std::uint64_t, std::vector<std::uint8_t>>> records;
  std::uint64_t savedLength = 0;
  try {
    if (RollbackJournal::ReadImages(journal, *length, &savedLength, &records)) {
      *length = savedLength;
      // A rollback writes the records in order: the first image of a page
      // is what the file held at the last save.
      for (auto& record : records) images->emplace(record.first - kFirstPageId, std::move(record.second));
    }
  } catch (...) {
    PlatformFile::Close(journal);
    throw;
  }
  PlatformFile::Close(journal);
}

void FilePageCache::Adopt(FileHandle* file, const wchar_t* path, std::uint64_t length, Access access,
                          std::uint64_t capacity) {
  // What may throw (no memory for the paths) comes first, the file last:
  // until the cache holds it, the caller closes it on failure.
  path_ = path;
  journal_.Attach(path_);
  access_ = access;
  journaling_ = IsJournaling();
  journalImages_.clear();
  fileLength_ = length;
  savedLength_ = length;
  savedFree_.clear();
  savedFreeKnown_ = false;
  zerosFrom_ = length;
  capacity_ = capacity == 0 ? 1 : capacity;
  count_ = 0;
  mostRecent_ = leastRecent_ = nullptr;
  file_ = file;
}

void FilePageCache::Close() {
  CheckInvariants();
  if (file_ != nullptr) Commit();
  FreeAllPages();
  CloseFile();
}

void FilePageCache::Commit() {
  CheckInvariants();
  FlushDeferred();
  std::vector<CachedPage*> written;
  for (CachedPage* page : index_) {
    if (page != nullptr && page->dirty != 0) written.push_back(page);
  }
  WriteRuns(written);
  if (journal_.IsActive()) {
    errno = 0;
    if (PlatformFile::Sync(file_) != 0) throw FileIOException(errno);
    journal_.Finish();
  }
  // The file now holds the new state; the kept images still give the
  // saved one until a page freed by this save can change.
  if (savedImages_) savedImagesCommitted_ = true;
  savedLength_ = fileLength_;
  savedFree_.clear();
  savedFreeKnown_ = false;
}

void FilePageCache::CloseFile() {
  // A commit's images stay through the reopening that follows it.
  if (!savedImagesCommitted_) EndSavedImages();
  FileHandle* file = file_;
  file_ = nullptr;
  journalImages_.clear();
  fileLength_ = 0;
  savedLength_ = 0;
  savedFree_.clear();
  savedFreeKnown_ = false;
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

void FilePageCache::Rollback() {
  CheckInvariants();
  BeforeFileChange();
  FreeAllPages();
  if (!journal_.IsActive()) return;
  try {
    fileLength_ = journal_.Rollback(file_);
    zerosFrom_ = fileLength_;
  } catch (...) {
    // The file is neither the saved state nor this cache's: the cache
    // closes without writing, and the journal it leaves rolls the file
    // back at the next open.
    journal_.Abandon();
    try {
      CloseFile();
    } catch (...) {
      // Closed all the same.
    }
    throw;
  }
}

bool FilePageCache::KeepSavedImages(std::shared_ptr<SavedImages> images) {
  if (file_ == nullptr || !journaling_ || access_ == Access::kReadOnly) return false;
  EndSavedImages();
  savedImages_ = std::move(images);
  return true;
}

void FilePageCache::EndSavedImages() noexcept {
  savedImagesCommitted_ = false;
  if (!savedImages_) return;
  savedImages_->Seal();
  savedImages_.reset();
}

void FilePageCache::BeforeFileChange() noexcept {
  if (savedImagesCommitted_) EndSavedImages();
}

void FilePageCache::SetSavedFreePages(std::vector<bool> freePages) {
  savedFree_ = std::move(freePages);
  savedFreeKnown_ = true;
}

void FilePageCache::FreeAllPages() {
  for (CachedPage*& page : index_) {
    delete page;
    page = nullptr;
  }
  for (auto& waiting : deferred_) delete waiting.second;
  deferred_.clear();
  index_.clear();
  count_ = 0;
  dirtyListed_ = 0;
  mostRecent_ = leastRecent_ = nullptr;
}

std::uint8_t* FilePageCache::GetPage(std::uint64_t pageId, bool forRead, bool overwrite) {
  assert(capacity_ >= 1 || file_ == nullptr);
  if (!IsPageId(pageId)) return nullptr;
  const std::uint64_t idx = pageId - kFirstPageId;
  if (idx >= index_.size()) index_.resize(idx + 1, nullptr);
  if (CachedPage* page = index_[idx]) {
    if (!forRead && access_ == Access::kReadOnly) throw FileIOException(EROFS);
    if (!forRead && page->dirty == 0) ProtectBeforeChange(*page);
    Unlink(page);
    PushMostRecent(page);
    ++page->pinCount;
    if (!forRead) SetDirty(page, true);
    return page->data;
  }
  if (capacity_ == 0) throw InvalidParameterException();
  if (!forRead && access_ == Access::kReadOnly) throw FileIOException(EROFS);
  if (!CanEvictDownTo(capacity_ - 1)) return nullptr;
  if (CachedPage* waiting = TakeDeferred(idx)) return Revive(waiting);

  // The new page is loaded before anything is evicted, so that a failed
  // file call leaves the cached pages exactly as they were.
  std::unique_ptr<CachedPage> page(new CachedPage);
  page->index = idx;
  page->pinCount = 1;
  page->dirty = forRead ? 0 : 1;
  page->older = page->newer = nullptr;
  if (!forRead) EnsureFileCoversPage(pageId);
  const std::uint64_t offset = idx * kPageSize;
  const auto image = journalImages_.find(idx);
  const bool keepsOldBytes = NeedsJournal(idx) && !journal_.IsJournaled(pageId);
  if (!forRead && overwrite && !keepsOldBytes) {
    // Every byte is about to be written: the old ones need not be read.
    std::memset(page->data, 0, kPageSize);
  } else if (image != journalImages_.end() && offset < fileLength_) {
    std::memcpy(page->data, image->second.data(), kPageSize);
  } else if (offset >= zerosFrom_ && offset + kPageSize <= fileLength_) {
    // The page was appended as zeros and not written since: its image is
    // known without reading it back.
    std::memset(page->data, 0, kPageSize);
  } else if (!PageFileIO::ReadPage(file_, fileLength_, page->data, idx * kPageSize)) {
    return nullptr;
  }
  if (!forRead) ProtectBeforeChange(*page);
  EvictDownTo(capacity_ - 1);
  index_[idx] = page.get();
  PushMostRecent(page.release());
  return index_[idx]->data;
}

std::uint8_t* FilePageCache::Revive(CachedPage* page) {
  // A written page whose write still waits for the journal comes back as it
  // left, changes and all.
  try {
    EvictDownTo(capacity_ - 1);
  } catch (...) {
    deferred_[page->index] = page;
    throw;
  }
  page->pinCount = 1;
  page->older = page->newer = nullptr;
  index_[page->index] = page;
  PushMostRecent(page);
  return page->data;
}

bool FilePageCache::ReadableAsFiled(std::uint64_t index) const {
  const std::uint64_t offset = index * kPageSize;
  return (index >= index_.size() || index_[index] == nullptr) && deferred_.count(index) == 0 &&
         offset + kPageSize <= fileLength_ && offset + kPageSize <= zerosFrom_ && journalImages_.count(index) == 0;
}

void FilePageCache::Prefetch(std::uint64_t firstPageId, std::uint64_t pages) {
  if (file_ == nullptr || !IsPageId(firstPageId)) return;
  const std::uint64_t first = firstPageId - kFirstPageId;
  std::uint64_t n = 0;
  while (n < pages && n < kMostPagesPerCall && n + 1 < capacity_ && IsPageId(firstPageId + n) &&
         ReadableAsFiled(first + n)) {
    ++n;
  }
  while (n >= 2 && !CanEvictDownTo(capacity_ - n)) --n;
  if (n < 2) return;
  try {
    staging_.resize(n * kPageSize);
    PageFileIO::ReadPage(file_, fileLength_, staging_.data(), first * kPageSize, n);
    std::vector<std::unique_ptr<CachedPage>> loaded;
    loaded.reserve(n);  // so that no page is ever held by a raw pointer while the vector grows
    for (std::uint64_t i = 0; i < n; ++i) {
      std::unique_ptr<CachedPage> made(new CachedPage);
      loaded.push_back(std::move(made));
      CachedPage& page = *loaded.back();
      page.index = first + i;
      page.pinCount = 0;
      page.dirty = 0;
      page.older = page.newer = nullptr;
      std::memcpy(page.data, staging_.data() + i * kPageSize, kPageSize);
    }
    EvictDownTo(capacity_ - n);
    if (first + n > index_.size()) index_.resize(first + n, nullptr);
    for (auto& page : loaded) {
      index_[page->index] = page.get();
      PushMostRecent(page.release());
    }
  } catch (const std::exception&) {
    // Nothing was cached: the reader's GetPage meets the trouble itself.
  }
}

std::uint64_t FilePageCache::ReadUncached(std::uint64_t firstPageId, std::uint64_t pages, std::uint8_t* into) {
  CheckInvariants();
  if (file_ == nullptr || into == nullptr || !IsPageId(firstPageId)) return 0;
  const std::uint64_t first = firstPageId - kFirstPageId;
  std::uint64_t n = 0;
  while (n < pages && IsPageId(firstPageId + n) && ReadableAsFiled(first + n)) ++n;
  if (n == 0) return 0;
  PageFileIO::ReadPage(file_, fileLength_, into, first * kPageSize, n);
  return n;
}

bool FilePageCache::ReadFileBytes(std::uint64_t offset, std::uint8_t* into, std::uint64_t size) {
  CheckInvariants();
  if (file_ == nullptr) throw FileIOException(0);
  return PageFileIO::ReadBytes(file_, offset, into, size);
}

bool FilePageCache::FileMatchesCache() const {
  return file_ != nullptr && !journal_.IsActive() && journalImages_.empty() && deferred_.empty() && dirtyListed_ == 0;
}

bool FilePageCache::ReadFileAt(std::uint64_t offset, std::uint8_t* into, std::uint64_t size) const {
  if (file_ == nullptr) throw FileIOException(0);
  return PageFileIO::ReadBytesAt(file_, offset, into, size);
}

void FilePageCache::EnsureFileCoversPage(std::uint64_t pageId) {
  const std::uint64_t needed = pageId * kPageSize - kFirstPageId * kPageSize + kPageSize;
  if (needed > fileLength_) {
    if (access_ == Access::kReadOnly) throw FileIOException(EROFS);
    BeginJournalIfNeeded();
    PageFileIO::ExtendFile(file_, needed);
    fileLength_ = needed;
  }
}

void FilePageCache::CutFile(std::uint64_t pages) {
  CheckInvariants();
  const std::uint64_t length = pages * kPageSize;
  if (access_ == Access::kReadOnly) throw FileIOException(EROFS);
  if (length >= fileLength_) throw InvalidParameterException();
  for (std::uint64_t idx = pages; idx < index_.size(); ++idx) {
    if (index_[idx] != nullptr && index_[idx]->pinCount > 0) throw InvalidParameterException();
  }
  BeforeFileChange();
  BeginJournalIfNeeded();
  JournalCutPages(pages);
  errno = 0;
  if (PlatformFile::Truncate(file_, length) != 0) throw FileIOException(errno);
  for (std::uint64_t idx = pages; idx < index_.size(); ++idx) {
    if (CachedPage* page = index_[idx]) {
      index_[idx] = nullptr;
      Unlink(page);
      delete page;
    }
  }
  for (auto waiting = deferred_.lower_bound(pages); waiting != deferred_.end();) {
    delete waiting->second;
    waiting = deferred_.erase(waiting);
  }
  fileLength_ = length;
  if (zerosFrom_ > length) zerosFrom_ = length;
}

bool FilePageCache::NeedsJournal(std::uint64_t index) const {
  if (!journaling_ || index * kPageSize >= savedLength_) return false;
  return !savedFreeKnown_ || (index < savedFree_.size() && !savedFree_[index]);
}

void FilePageCache::JournalCutPages(std::uint64_t pages) {
  if (!journaling_) return;
  // Every page of the saved state that the cut takes away goes to the
  // journal first (none past the saved table, when it is known), and the
  // journal to stable storage.
  std::vector<std::uint8_t> image(kPageSize);
  std::uint64_t end = std::min(savedLength_, fileLength_);
  if (savedFreeKnown_) end = std::min<std::uint64_t>(end, savedFree_.size() * kPageSize);
  for (std::uint64_t idx = pages; idx * kPageSize < end; ++idx) {
    if (NeedsJournal(idx)) JournalSavedImage(idx, image.data());
  }
  // The saved file's last page goes too, in use or not: the records then
  // reach the saved length, and an opener lets the rollback grow the file
  // back to it.
  if (savedLength_ > 0) {
    const std::uint64_t last = (savedLength_ - 1) / kPageSize;
    if (last >= pages && last * kPageSize < fileLength_) JournalSavedImage(last, image.data());
  }
  journal_.SyncIfNeeded();
}

void FilePageCache::JournalSavedImage(std::uint64_t index, std::uint8_t* image) {
  if (journal_.IsJournaled(index + kFirstPageId)) return;
  // A written page that needs its saved image is journaled already; one
  // that does not (free in the saved state) is taken as the file holds it.
  const CachedPage* cached = index < index_.size() ? index_[index] : nullptr;
  if (cached != nullptr && cached->dirty == 0) {
    std::memcpy(image, cached->data, kPageSize);
  } else {
    ReadFiledImage(index, image);
  }
  if (savedImages_) savedImages_->Keep(index, image);
  journal_.Append(index + kFirstPageId, image);
}

void FilePageCache::ReadFiledImage(std::uint64_t index, std::uint8_t* image) {
  const std::uint64_t offset = index * kPageSize;
  if (offset + kPageSize <= fileLength_) {
    PageFileIO::ReadPage(file_, fileLength_, image, offset);
    return;
  }
  std::memset(image, 0, kPageSize);
  const auto bytes = static_cast<std::size_t>(fileLength_ - offset);
  errno = 0;
  if (PlatformFile::Seek(file_, static_cast<std::int64_t>(offset), SEEK_SET) != 0 ||
      PlatformFile::Read(image, bytes, 1, file_) != 1) {
    throw FileIOException(errno);
  }
}

void FilePageCache::BeginJournalIfNeeded() {
  // A cache whose file could not be opened again writes nothing, and
  // begins no journal that could never be finished.
  if (file_ == nullptr) throw FileIOException(0);
  if (journaling_ && !journal_.IsActive()) journal_.Begin(savedLength_);
}

namespace {

std::atomic<bool>& JournalingSwitch() {
  static std::atomic<bool> on{true};
  return on;
}

}  // namespace

void FilePageCache::SetJournaling(bool on) { JournalingSwitch().store(on); }

bool FilePageCache::IsJournaling() { return JournalingSwitch().load(); }

void FilePageCache::ProtectBeforeChange(const CachedPage& page) {
  const std::uint64_t pageId = page.index + kFirstPageId;
  if (!NeedsJournal(page.index) || journal_.IsJournaled(pageId)) return;
  BeginJournalIfNeeded();
  if (savedImages_) savedImages_->Keep(page.index, page.data);
  journal_.Append(pageId, page.data);
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
      const bool waits = WaitsForJournal(*page);
      if (waits && deferred_.size() >= capacity_) FlushDeferred();
      if (waits && journal_.HasUnsyncedRecords()) {
        deferred_[page->index] = page;
      } else if (page->dirty != 0) {
        WriteBackWithNeighbours(page);
      }
      index_[page->index] = nullptr;
      Unlink(page);
      if (deferred_.count(page->index) == 0) delete page;
    }
    page = next;
  }
  return count_ <= bound;
}

bool FilePageCache::WaitsForJournal(const CachedPage& page) const {
  return page.dirty != 0 && page.index * kPageSize < fileLength_ &&
         journal_.IsJournaled(page.index + kFirstPageId) && journal_.HasUnsyncedRecords();
}

void FilePageCache::FlushDeferred() {
  if (deferred_.empty()) return;
  journal_.SyncIfNeeded();
  // Run by run, each dropped once it is written, so that a failure leaves
  // exactly the pages still unwritten waiting.
  while (!deferred_.empty()) {
    std::vector<CachedPage*> run{deferred_.begin()->second};
    for (auto next = std::next(deferred_.begin());
         next != deferred_.end() && next->first == run.back()->index + 1 && run.size() < kMostPagesPerCall; ++next) {
      run.push_back(next->second);
    }
    WriteRun(run.data(), run.size());
    for (CachedPage* page : run) {
      deferred_.erase(page->index);
      delete page;
    }
  }
}

FilePageCache::CachedPage* FilePageCache::TakeDeferred(std::uint64_t index) {
  const auto found = deferred_.find(index);
  if (found == deferred_.end()) return nullptr;
  CachedPage* page = found->second;
  deferred_.erase(found);
  return page;
}

void FilePageCache::WriteBack(CachedPage* page) {
  if (page->dirty != 0) WriteRun(&page, 1);
}

void FilePageCache::WriteRun(CachedPage* const* pages, std::size_t n) {
  assert(n >= 1 && n <= kMostPagesPerCall);
  BeforeFileChange();
  const std::uint64_t offset = pages[0]->index * kPageSize;
  if (offset < fileLength_) {
    // Nothing reaches the file before the journal exists, and no saved
    // page is overwritten before its saved image is on stable storage.
    BeginJournalIfNeeded();
    for (std::size_t i = 0; i < n; ++i) {
      assert(pages[i]->dirty != 0 && pages[i]->index == pages[0]->index + i);
      if (journal_.IsJournaled(pages[i]->index + kFirstPageId)) journal_.SyncIfNeeded();
    }
  }
  const std::uint8_t* bytes = pages[0]->data;
  if (n > 1) {
    staging_.resize(n * kPageSize);
    for (std::size_t i = 0; i < n; ++i) std::memcpy(staging_.data() + i * kPageSize, pages[i]->data, kPageSize);
    bytes = staging_.data();
  }
  PageFileIO::WritePage(file_, fileLength_, bytes, offset, n);
  const std::uint64_t end = offset + n * kPageSize;
  if (end > zerosFrom_) zerosFrom_ = end;
  for (std::size_t i = 0; i < n; ++i) SetDirty(pages[i], false);
}

bool FilePageCache::JoinsRun(const CachedPage* page) const {
  return page != nullptr && page->dirty != 0 && page->pinCount < 1 && !WaitsForJournal(*page) &&
         page->index * kPageSize < fileLength_;
}

void FilePageCache::WriteBackWithNeighbours(CachedPage* page) {
  // Written pages next to it in the file, unpinned and free to be written
  // now, go in the same file call; they stay cached, clean.
  std::uint64_t first = page->index;
  std::uint64_t last = page->index;
  while (first > 0 && last - first + 1 < kMostPagesPerCall && JoinsRun(Find(first - 1 + kFirstPageId))) --first;
  while (last - first + 1 < kMostPagesPerCall && JoinsRun(Find(last + 1 + kFirstPageId))) ++last;
  std::vector<CachedPage*> run;
  for (std::uint64_t idx = first; idx <= last; ++idx) run.push_back(idx == page->index ? page : index_[idx]);
  WriteRun(run.data(), run.size());
}

void FilePageCache::WriteRuns(const std::vector<CachedPage*>& pages) {
  // `pages` ascend by index; each run of neighbours goes in one call. A
  // failure leaves the runs written so far clean and the rest written.
  std::size_t start = 0;
  for (std::size_t i = 1; i <= pages.size(); ++i) {
    if (i == pages.size() || pages[i]->index != pages[i - 1]->index + 1 || i - start == kMostPagesPerCall) {
      if (i > start) WriteRun(pages.data() + start, i - start);
      start = i;
    }
  }
}

void FilePageCache::PushMostRecent(CachedPage* page) {
  page->newer = nullptr;
  page->older = mostRecent_;
  if (mostRecent_ != nullptr) mostRecent_->newer = page;
  mostRecent_ = page;
  if (leastRecent_ == nullptr) leastRecent_ = page;
  ++count_;
  dirtyListed_ += page->dirty != 0 ? 1 : 0;
}

void FilePageCache::SetDirty(CachedPage* page, bool dirty) {
  const bool listed = page->index < index_.size() && index_[page->index] == page;
  if (listed && (page->dirty != 0) != dirty) {
    if (dirty) {
      ++dirtyListed_;
    } else {
      --dirtyListed_;
    }
  }
  page->dirty = dirty ? 1 : 0;
}

void FilePageCache::Unlink(CachedPage* page) {
  if (page->older != nullptr) page->older->newer = page->newer;
  if (page->newer != nullptr) page->newer->older = page->older;
  if (mostRecent_ == page) mostRecent_ = page->older;
  if (leastRecent_ == page) leastRecent_ = page->newer;
  page->older = page->newer = nullptr;
  --count_;
  dirtyListed_ -= page->dirty != 0 ? 1 : 0;
}

void FilePageCache::CheckInvariants() const {
#ifndef NDEBUG
  assert(capacity_ >= 1);
  assert(savedFreeKnown_ || savedFree_.empty());
  if (file_ == nullptr) {
    assert(count_ == 0 && fileLength_ == 0 && savedLength_ == 0 && !journal_.IsActive());
  }
  std::uint64_t walked = 0;
  std::uint64_t dirty = 0;
  const CachedPage* previous = nullptr;
  for (const CachedPage* p = leastRecent_; p != nullptr; p = p->newer) {
    dirty += p->dirty != 0 ? 1 : 0;
    assert(p->older == previous);
    assert(p->index < index_.size() && index_[p->index] == p);
    assert(p->dirty == 0 || p->index * kPageSize < fileLength_);
    assert(p->dirty == 0 || !NeedsJournal(p->index) || journal_.IsJournaled(p->index + kFirstPageId));
    previous = p;
    ++walked;
  }
  assert(previous == mostRecent_);
  assert(walked == count_);
  assert(dirty == dirtyListed_);
  std::uint64_t indexed = 0;
  for (const CachedPage* p : index_) indexed += p != nullptr ? 1 : 0;
  assert(indexed == count_);
  for (const auto& waiting : deferred_) {
    const CachedPage* p = waiting.second;
    assert(p->index == waiting.first && p->dirty != 0 && (p->index >= index_.size() || index_[p->index] == nullptr));
    assert(journal_.IsJournaled(p->index + kFirstPageId));
    (void)p;
  }
  assert(deferred_.size() <= capacity_);
  (void)walked;
  (void)dirty;
  (void)indexed;
#endif
}

}  // namespace Tovrel
