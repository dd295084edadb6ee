#include "package/PagedFilePackage.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <cwchar>
#include <new>
#include <unordered_map>
#include <utility>

#include "pagefile/ChildFileSeeker.h"
#include "pagefile/FileDataCorruptException.h"
#include "pagefile/FileIOException.h"
#include "pagefile/HeadFileSeeker.h"
#include "pagefile/HeadFileWriteOnlySeeker.h"
#include "pagefile/InvalidParameterException.h"
#include "pagefile/PageGeometry.h"
#include "pagefile/PageRef.h"
#include "pagefile/SavedHeadTail.h"
#include "platform/PlatformFile.h"
#include "streams/PagedFileStream.h"

namespace Tovrel {

namespace {

constexpr std::uint64_t kTailMask = kPageSize - 1;
constexpr std::uint64_t kPageShift = 13;
// The largest stream: every position of it, and its end, is a value of
// signed 32-bit arithmetic, as streams compute positions.
constexpr std::uint64_t kLargestStream = 0x7FFFFFFF;

// How many of pages[k], pages[k + 1], ... follow each other in the file,
// up to what one file call moves.
std::uint64_t RunLength(const std::vector<std::uint64_t>& pages, std::size_t k) {
  std::uint64_t n = 1;
  while (k + n < pages.size() && n < FilePageCache::kMostPagesPerCall && pages[k + n] == pages[k] + n) ++n;
  return n;
}

}  // namespace

PagedFilePackage::PagedFilePackage(const PagedFilePackageConfig& config)
    : modified_(false),
      loadFailure_(LoadFailure::kNone),
      broken_(false),
      access_(FilePageCache::Access::kUpdate),
      config_(config),
      path_(config.filePath != nullptr ? config.filePath : L""),
      allocator_(new PageAllocator) {
  config_.filePath = path_.c_str();
}

PagedFilePackage::~PagedFilePackage() {
  bool saved = !broken_;
  if (saved && modified_) {
    try {
      saved = Save();
    } catch (...) {
      saved = false;
    }
  }
  // A save that failed half-way, or a broken package, is taken back: the
  // file keeps its last completed save. Nothing can be reported from here.
  if (saved) {
    Close();
  } else {
    Abandon();
  }
}

void PagedFilePackage::CheckInvariants() const {
  assert(config_.filePath == path_.c_str());
  assert(!headSeeker_ || cache_);
  assert(!broken_ || cache_);
  assert(openStreams_.empty() || cache_);
  for (const auto& open : openStreams_) {
    assert(open.second != nullptr && open.second->GetIdentifier() == open.first);
    (void)open;
  }
}

void PagedFilePackage::Close() {
  for (auto& open : openStreams_) open.second->Detach();
  openStreams_.clear();
  headSeeker_.Reset();
  userData_.Clear();
  cache_.reset();
  allocator_->Reset();
  streams_.Clear();
  childFiles_.Clear();
  soundness_.Clear();
  modified_ = false;
  broken_ = false;
  config_.filePath = path_.c_str();
}

void PagedFilePackage::Abandon() {
  for (auto& open : openStreams_) open.second->Detach();
  openStreams_.clear();
  headSeeker_.Reset();
  RollBackPageWrites();
  modified_ = false;
  Close();
}

bool PagedFilePackage::RollBackPageWrites() {
  if (!cache_) return true;
  try {
    cache_->Rollback();
    return true;
  } catch (const std::exception&) {
    // The cache has closed itself; its journal stays for the next opener.
    return false;
  }
}

bool PagedFilePackage::LoadReadOnly() {
  access_ = FilePageCache::Access::kReadOnly;
  return Load();
}

bool PagedFilePackage::Create() {
  Replace();
  Save();
  return true;
}

bool PagedFilePackage::Replace() {
  Close();
  access_ = FilePageCache::Access::kUpdate;
  cache_.reset(new FilePageCache(path_.c_str(), config_.cachePageCount));
  streams_.Clear();
  streams_.SetStreamLimit(config_.streamLimit);
  // The head chain starts at the first page: no stream may take it first.
  allocator_->ClaimPage(kFirstPageId);
  modified_ = true;
  return true;
}

bool PagedFilePackage::Load() {
  cache_.reset(new FilePageCache(path_.c_str(), config_.cachePageCount, access_));
  RefPtr<HeadFileSeeker> reader(new HeadFileSeeker(cache_.get()));
  headSeeker_ = reader.Get();
  if (!reader->OpenForRead()) return false;
  // The tables are read as the chain is followed, so that each of its pages
  // is read once. The whole chain is checked too, so that a later save
  // frees exactly its pages and never meets a broken link; and when the
  // tables cannot be read, the chain is checked first, so that a broken
  // chain fails the load as a broken chain, whatever the tables met.
  bool read = false;
  try {
    read = ReadTables();
  } catch (...) {
    reader->LoadPagesUpTo(reader->pageCount - 1);
    throw;
  }
  reader->LoadPagesUpTo(reader->pageCount - 1);
  if (!read) return false;
  soundness_.Assess(*allocator_, streams_, childFiles_, *reader);
  for (std::uint64_t child : soundness_.GetUnsoundChildFiles()) childFiles_.CloseToNewTails(child);
  cache_->SetSavedFreePages(allocator_->GetFreePages());
  return true;
}

bool PagedFilePackage::ReadTables() {
  RefPtr<IDataStream> head(new PagedFileStream(cache_.get(), headSeeker_));
  return allocator_->LoadTable(head) && streams_.Read(head, config_.streamLimit) &&
         childFiles_.Read(head, config_.streamLimit) && userData_.Read(head);
}

RefPtr<PagedFilePackage> PagedFilePackage::Open(const PagedFilePackageConfig& config, LoadFailure* why) {
  return OpenWith(config, FilePageCache::Access::kUpdate, why);
}

RefPtr<PagedFilePackage> PagedFilePackage::OpenReadOnly(const PagedFilePackageConfig& config, LoadFailure* why) {
  return OpenWith(config, FilePageCache::Access::kReadOnly, why);
}

RefPtr<PagedFilePackage> PagedFilePackage::OpenWith(const PagedFilePackageConfig& config, FilePageCache::Access access,
                                                    LoadFailure* why) {
  *why = LoadFailure::kUnavailable;
  if (config.filePath == nullptr) return RefPtr<PagedFilePackage>();
  try {
    RefPtr<PagedFilePackage> package(new PagedFilePackage(config));
    package->access_ = access;
    const bool loaded = package->Reload();
    *why = package->GetLoadFailure();
    if (loaded) return package;
  } catch (const std::exception&) {
    *why = LoadFailure::kUnavailable;  // no memory for the package itself
  }
  return RefPtr<PagedFilePackage>();
}

bool PagedFilePackage::Reload() {
  CheckInvariants();
  loadFailure_ = LoadFailure::kUnavailable;
  if (!openStreams_.empty()) return false;
  // Pages written since the last save are dropped, whatever the outcome,
  // and those already written to the file are taken back first, so that
  // the file read is the last completed save.
  if (!RollBackPageWrites()) return false;
  // The file is proven damaged only when it was read without trouble: a
  // failed file call on the way, or no memory, says nothing of its bytes.
  const std::uint64_t failuresBefore = PlatformFile::FailuresOnThisThread();
  RefPtr<PagedFilePackage> loaded(new PagedFilePackage(config_));
  loaded->access_ = access_;
  bool success = false;
  bool trouble = false;
  try {
    if (!loaded->Load()) throw FileDataCorruptException();
    success = true;
  } catch (const std::bad_alloc&) {
    trouble = true;
  } catch (...) {
    success = false;
  }
  if (!success) {
    trouble = trouble || !loaded->cache_ || PlatformFile::FailuresOnThisThread() != failuresBefore;
    loaded->Close();
    loadFailure_ = trouble ? LoadFailure::kUnavailable : LoadFailure::kCorrupt;
    return false;
  }
  SwapState(*loaded);
  loaded.Reset();  // the former state: saved if it was modified, then closed
  loadFailure_ = LoadFailure::kNone;
  return true;
}

void PagedFilePackage::SwapState(PagedFilePackage& other) {
  std::swap(modified_, other.modified_);
  std::swap(broken_, other.broken_);
  std::swap(access_, other.access_);
  std::swap(config_, other.config_);
  path_.swap(other.path_);
  cache_.swap(other.cache_);
  allocator_.Swap(other.allocator_);
  std::swap(streams_, other.streams_);
  std::swap(childFiles_, other.childFiles_);
  std::swap(userData_, other.userData_);
  std::swap(soundness_, other.soundness_);
  headSeeker_.Swap(other.headSeeker_);
  openStreams_.swap(other.openStreams_);
  config_.filePath = path_.c_str();
  other.config_.filePath = other.path_.c_str();
}

bool PagedFilePackage::ReadSavedUserDataTail(std::uint8_t* out, std::uint64_t size) {
  if (!cache_ || !cache_->IsOpen()) return false;
  return SavedHeadTail::Read(*cache_, out, size);
}

template <typename Change>
void PagedFilePackage::Changing(Change change) {
  try {
    change();
  } catch (...) {
    broken_ = true;
    throw;
  }
}

bool PagedFilePackage::SetUserDataSize(std::uint64_t size) {
  modified_ = true;
  return userData_.SetSize(size);
}

std::uint8_t* PagedFilePackage::GetUserData() {
  modified_ = true;
  return userData_.Data();
}

std::uint64_t PagedFilePackage::GetStreamIdentifier(std::uint64_t index) const {
  return streams_.GetIdentifier(index);
}

void PagedFilePackage::ForgetStream(std::uint64_t identifier, const ChildFileStream* stream) {
  const auto found = openStreams_.find(identifier);
  if (found != openStreams_.end() && found->second == stream) openStreams_.erase(found);
}

void PagedFilePackage::ReleaseOpenStreamPages() {
  for (auto& open : openStreams_) open.second->ReleasePages();
}

RefPtr<IDataStream> PagedFilePackage::OpenStream(std::uint64_t identifier) {
  CheckInvariants();
  const auto open = openStreams_.find(identifier);
  if (open != openStreams_.end()) return RefPtr<IDataStream>(open->second);
  const StreamEntry* entry = streams_.Find(identifier);
  if (entry == nullptr || !cache_) return RefPtr<IDataStream>();
  TailLocation tail{};
  ChildFileSeeker::LocateTail(tail, childFiles_, identifier);
  RefPtr<ChildFileSeeker> seeker(new ChildFileSeeker);
  try {
    seeker->AttachStream(allocator_.Get(), *entry, tail);
  } catch (const FileDataCorruptException&) {
    return RefPtr<IDataStream>();  // no seeker for this stream (size 0 or a broken chain)
  }
  RefPtr<IPagedFileSeeker> base(seeker.Get());
  RefPtr<ChildFileStream> stream(new ChildFileStream(this, identifier, cache_.get(), base, IsSound(identifier)));
  openStreams_[identifier] = stream.Get();
  return RefPtr<IDataStream>(stream.Get());
}

std::uint64_t PagedFilePackage::AllocateChain(std::uint64_t pages) {
  std::uint64_t first = 0;
  std::uint64_t last = 0;
  std::uint64_t highest = 0;
  std::uint64_t taken = 0;
  try {
    for (; taken < pages; ++taken) {
      last = allocator_->AllocatePage(last);
      if (taken == 0) first = last;
      highest = std::max(highest, last);
    }
    // One extension covers every page of the chain.
    if (highest != 0) cache_->EnsureFileCoversPage(highest);
  } catch (...) {
    FreeChain(first, taken);
    throw;
  }
  return first;
}

void PagedFilePackage::FreeChain(std::uint64_t firstPage, std::uint64_t pages) {
  // Bounded by the chain's length, so that a damaged table can make it
  // neither loop nor run into pages of other chains beyond its length.
  std::uint64_t page = firstPage;
  for (std::uint64_t i = 0; i < pages; ++i) {
    if (!IsPageId(page) || !allocator_->IsPageAllocated(page)) return;
    const std::uint64_t next = allocator_->GetNextPage(page);
    allocator_->FreePage(page);
    page = next;
  }
}

std::uint64_t PagedFilePackage::ChildFileWithRoom(std::uint64_t bytes) {
  const std::uint64_t found = childFiles_.FindRoom(bytes);
  if (found != ChildFileTable::kNone) return found;
  modified_ = true;
  const std::uint64_t first = AllocateChain(kChildFilePages);
  std::uint64_t pages[kChildFilePages];
  pages[0] = first;
  for (std::uint64_t i = 1; i < kChildFilePages; ++i) pages[i] = allocator_->GetNextPage(pages[i - 1]);
  const std::uint64_t id = childFiles_.AddChildFile(pages);
  if (id == ChildFileTable::kNone) {
    FreeChain(first, kChildFilePages);
    throw FileDataCorruptException();
  }
  return id;
}

void PagedFilePackage::PlaceTail(std::uint64_t identifier, std::uint64_t bytes) {
  const std::uint64_t child = ChildFileWithRoom(bytes);
  const ChildFileRecord* record = childFiles_.FindChildFile(child);
  const StreamTailRecord tail{identifier, child, 0, kChildFileSize - record->freeBytes, bytes};
  if (!childFiles_.AddTail(tail)) throw FileDataCorruptException();
}

std::uint64_t PagedFilePackage::CreateStream(std::uint64_t size) {
  CheckInvariants();
  if (!cache_ || GetNumberOfStreams() >= config_.streamLimit) return kNoStream;
  const std::uint64_t tail = size & kTailMask;
  // A stream whose positions signed 32-bit arithmetic cannot reach, or a
  // tail that would need a child file beyond what a file with this limit
  // may hold (it could not be read back), is refused before anything
  // changes.
  if (size > kLargestStream) return kNoStream;
  if (tail != 0 && childFiles_.FindRoom(tail) == ChildFileTable::kNone &&
      childFiles_.GetChildFileCount() >= ChildFileTable::ChildFileLimit(config_.streamLimit)) {
    return kNoStream;
  }
  std::uint64_t identifier = kNoStream;
  Changing([&] { identifier = AddStream(size); });
  return identifier;
}

std::uint64_t PagedFilePackage::AddEntry(const StreamEntry& entry) {
  std::vector<std::uint64_t> passedOver;
  std::uint64_t identifier = streams_.Add(entry);
  while (identifier != kNoStream && childFiles_.FindTail(identifier) != nullptr) {
    passedOver.push_back(identifier);
    identifier = streams_.Add(entry);
  }
  for (std::uint64_t id : passedOver) streams_.Remove(id);
  return identifier;
}

std::uint64_t PagedFilePackage::AddStream(std::uint64_t size) {
  const std::uint64_t tail = size & kTailMask;
  const std::uint64_t fullPages = size >> kPageShift;
  modified_ = true;
  StreamEntry entry{kNoStream, size, 0, fullPages};
  if (fullPages != 0) entry.firstPage = AllocateChain(fullPages);
  const std::uint64_t identifier = AddEntry(entry);
  if (identifier == kNoStream) {
    FreeChain(entry.firstPage, fullPages);
    return kNoStream;
  }
  if (tail == 0) return identifier;
  try {
    PlaceTail(identifier, tail);
  } catch (...) {
    // A stream without its tail could never be opened: it goes again.
    streams_.Remove(identifier);
    FreeChain(entry.firstPage, fullPages);
    throw;
  }
  return identifier;
}

RefPtr<PagedFileStream> PagedFilePackage::ChildFileAsStream(std::uint64_t childFileIdentifier) {
  const ChildFileRecord* child = childFiles_.FindChildFile(childFileIdentifier);
  if (child == nullptr) throw FileDataCorruptException();
  RefPtr<ChildFileSeeker> seeker(new ChildFileSeeker);
  seeker->AttachStream(allocator_.Get(), StreamEntry{kNoStream, kChildFileSize, child->page[0], kChildFilePages},
                       TailLocation{});
  RefPtr<IPagedFileSeeker> base(seeker.Get());
  return RefPtr<PagedFileStream>(new PagedFileStream(cache_.get(), base));
}

void PagedFilePackage::CompactChildFile(const StreamTailRecord& tail) {
  RefPtr<PagedFileStream> stream = ChildFileAsStream(tail.childFileIdentifier);
  ReleaseOpenStreamPages();
  if (!stream->RemoveRange(static_cast<std::int32_t>(tail.offset), static_cast<std::uint32_t>(tail.size))) {
    throw FileDataCorruptException();
  }
}

bool PagedFilePackage::IsSound(std::uint64_t identifier) const {
  if (!soundness_.IsStreamSound(identifier)) return false;
  const StreamTailRecord* tail = childFiles_.FindTail(identifier);
  return tail == nullptr || soundness_.IsChildFileSound(tail->childFileIdentifier);
}

bool PagedFilePackage::RemoveStream(std::uint64_t identifier) {
  CheckInvariants();
  if (openStreams_.count(identifier) != 0) return false;
  const StreamEntry* found = streams_.Find(identifier);
  if (found == nullptr) return true;
  const StreamEntry entry = *found;
  // The stream must be sound and its tail lie in its child file's used
  // bytes, checked before anything changes: a damaged stream is left as it
  // was, and so are the streams its damaged table mixes it up with.
  TailLocation location{};
  ChildFileSeeker::LocateTail(location, childFiles_, identifier);
  if (!IsSound(identifier)) throw FileDataCorruptException();
  const StreamTailRecord* tail = childFiles_.FindTail(identifier);
  Changing([&] { RemoveSoundStream(entry, tail); });
  return true;
}

void PagedFilePackage::RemoveSoundStream(const StreamEntry& entry, const StreamTailRecord* tail) {
  // The tail's bytes are closed up first, before any table changes.
  modified_ = true;
  if (tail != nullptr) CompactChildFile(*tail);
  FreeChain(entry.firstPage, entry.fullPageCount);
  streams_.Remove(entry.identifier);
  if (tail != nullptr) {
    const std::uint64_t child = tail->childFileIdentifier;
    childFiles_.RemoveTail(entry.identifier);
    MoveOpenTails(child);
  }
}

void PagedFilePackage::MoveOpenTails(std::uint64_t childFileIdentifier) {
  // Open streams whose tails share the compacted child file follow their
  // bytes to where they now lie.
  if (openStreams_.empty()) return;
  const std::vector<std::uint64_t>* tails = childFiles_.TailsOf(childFileIdentifier);
  for (std::uint64_t stream : *tails) {
    const auto open = openStreams_.find(stream);
    if (open == openStreams_.end()) continue;
    TailLocation location{};
    ChildFileSeeker::LocateTail(location, childFiles_, stream);
    open->second->MoveTail(location);
  }
}

void PagedFilePackage::FreeHeadChain() {
  if (!headSeeker_) return;
  const std::uint64_t count = headSeeker_->pageCount;
  if (count != 0) headSeeker_->LoadPagesUpTo(count - 1);
  for (std::uint64_t i = 0; i < count; ++i) {
    const std::uint64_t page = headSeeker_->pageIds[i];
    if (IsPageId(page) && allocator_->IsPageAllocated(page)) allocator_->FreePage(page);
  }
  headSeeker_.Reset();
}

std::vector<std::uint64_t> PagedFilePackage::LayOutHeadChain(std::uint64_t restBytes) {
  std::vector<std::uint64_t> pages{kFirstPageId};
  allocator_->ClaimPage(kFirstPageId);
  // Each page taken may lengthen the allocation table, and so the chain.
  while (pages.size() < ChainPagesFor(allocator_->GetTableSaveSize() + restBytes)) {
    pages.push_back(allocator_->AllocatePage(pages.back()));
    cache_->EnsureFileCoversPage(pages.back());
  }
  return pages;
}

void PagedFilePackage::WriteSections(RefPtr<IDataStream>& head) {
  allocator_->SaveTable(head);
  streams_.Write(head);
  childFiles_.Write(head);
  userData_.Write(head);
}

void PagedFilePackage::ReopenCache() {
  try {
    cache_->Close();
  } catch (...) {
    if (!cache_->IsOpen()) cache_->Open(path_.c_str(), config_.cachePageCount);
    throw;
  }
  cache_->Open(path_.c_str(), config_.cachePageCount);
}

std::uint64_t PagedFilePackage::GetRestSaveSize() const {
  return streams_.GetSaveSize() + childFiles_.GetSaveSize() + userData_.GetSaveSize();
}

bool PagedFilePackage::WriteHead(std::uint64_t restBytes) {
  FreeHeadChain();
  const std::vector<std::uint64_t> pages = LayOutHeadChain(restBytes);
  std::vector<std::uint64_t> nexts(pages.begin() + 1, pages.end());
  nexts.push_back(0);
  RefPtr<HeadFileWriteOnlySeeker> writer(new HeadFileWriteOnlySeeker(cache_.get()));
  headSeeker_ = writer.Get();
  ReleaseOpenStreamPages();
  const std::uint64_t size = allocator_->GetTableSaveSize() + restBytes;
  if (!writer->InitializeForWrite(pages.data(), nexts.data(), pages.size(), size)) return false;
  {
    RefPtr<IDataStream> head(new PagedFileStream(cache_.get(), headSeeker_));
    WriteSections(head);
  }
  ReleaseOpenStreamPages();
  return true;
}

void PagedFilePackage::CommitSave() {
  ReopenCache();
  cache_->SetSavedFreePages(allocator_->GetFreePages());
  modified_ = false;
}

bool PagedFilePackage::Save() {
  CheckInvariants();
  if (broken_) throw FileIOException(EIO);
  if (!modified_) return true;
  if (!cache_ || !cache_->IsOpen() || access_ == FilePageCache::Access::kReadOnly) return false;
  if (!WriteHead(GetRestSaveSize())) return false;
  CommitSave();
  return true;
}

bool PagedFilePackage::Compact(CompactResult* result) {
  CheckInvariants();
  if (!cache_ || access_ == FilePageCache::Access::kReadOnly || !openStreams_.empty()) return false;
  // Moving the pages of an unsound stream or child file could overwrite
  // those of others: a damaged table is refused before anything changes.
  if (!soundness_.IsSound()) throw FileDataCorruptException();
  if (!Save()) return false;
  CompactResult done;
  done.lengthBefore = cache_->GetFileLength();
  if (NeedsCompaction()) {
    try {
      CompactOrThrow(&done);
    } catch (...) {
      // Nothing of the half-done compaction may be saved later: the file
      // goes back to its last save, and the tables with it.
      broken_ = true;
      modified_ = false;
      if (!Reload()) Close();
      throw;
    }
  }
  done.lengthAfter = cache_->GetFileLength();
  if (result != nullptr) *result = done;
  return true;
}

bool PagedFilePackage::NeedsCompaction() const {
  const std::vector<bool> free = allocator_->GetFreePages();
  if (std::find(free.begin(), free.end(), true) != free.end()) return true;
  if (cache_->GetFileLength() > free.size() * kPageSize) return true;
  // A tail that could move into room in a child file before its own.
  std::uint64_t smallestLaterTail = ~std::uint64_t{0};
  for (std::uint64_t i = childFiles_.GetChildFileCount(); i-- > 0;) {
    const std::uint64_t child = childFiles_.GetChildFileIdentifier(i);
    if (childFiles_.FindChildFile(child)->freeBytes >= smallestLaterTail) return true;
    for (std::uint64_t stream : *childFiles_.TailsOf(child)) {
      const StreamTailRecord* tail = childFiles_.FindTail(stream);
      if (tail == nullptr) throw FileDataCorruptException();
      smallestLaterTail = std::min(smallestLaterTail, tail->size);
    }
    if (childFiles_.TailsOf(child)->empty()) return true;
  }
  return false;
}

void PagedFilePackage::CompactOrThrow(CompactResult* result) {
  PackTails(result);
  FreeHeadChain();
  modified_ = true;
  const std::uint64_t rest = GetRestSaveSize();
  const std::uint64_t pages = CompactedPageCount(rest);
  result->pagesMoved = MovePagesBelow(kFirstPageId + pages);
  allocator_->CutTable(pages);
  if (!WriteHead(rest)) throw FileIOException(0);
  // The head chain takes the free pages left below the end; should it
  // have needed more, the table grew and the file is cut behind it.
  const std::uint64_t length = allocator_->GetTableLength() * kPageSize;
  if (length < cache_->GetFileLength()) cache_->CutFile(allocator_->GetTableLength());
  CommitSave();
}

void PagedFilePackage::PackTails(CompactResult* result) {
  for (std::uint64_t i = childFiles_.GetChildFileCount(); i-- > 0;) {
    const std::uint64_t child = childFiles_.GetChildFileIdentifier(i);
    const std::vector<std::uint64_t> tails = *childFiles_.TailsOf(child);
    for (std::uint64_t stream : tails) {
      const StreamTailRecord tail = *childFiles_.FindTail(stream);
      const std::uint64_t room = childFiles_.FindRoom(tail.size);
      if (room == ChildFileTable::kNone || room >= child) continue;
      MoveTail(tail, room);
      ++result->tailsMoved;
    }
    if (!childFiles_.TailsOf(child)->empty()) continue;
    const std::uint64_t first = childFiles_.FindChildFile(child)->page[0];
    childFiles_.RemoveChildFile(child);
    FreeChain(first, kChildFilePages);
    ++result->childFilesFreed;
  }
}

void PagedFilePackage::MoveTail(const StreamTailRecord& tail, std::uint64_t childFileIdentifier) {
  std::vector<std::uint8_t> bytes(tail.size);
  RefPtr<PagedFileStream> from = ChildFileAsStream(tail.childFileIdentifier);
  if (!from->Seek(0, static_cast<std::int32_t>(tail.offset))) throw FileDataCorruptException();
  // The tail lies inside its child file (the table keeps it so): a short
  // read is the file failing.
  if (from->Read(bytes.data(), tail.size) != tail.size) throw FileIOException(0);
  from.Reset();
  const ChildFileRecord* target = childFiles_.FindChildFile(childFileIdentifier);
  const StreamTailRecord moved{tail.streamIdentifier, childFileIdentifier, 0, kChildFileSize - target->freeBytes,
                               tail.size};
  {
    RefPtr<PagedFileStream> to = ChildFileAsStream(childFileIdentifier);
    if (!to->Seek(0, static_cast<std::int32_t>(moved.offset)) || to->Write(bytes.data(), moved.size) != moved.size) {
      throw FileIOException(0);
    }
  }
  CompactChildFile(tail);
  childFiles_.RemoveTail(tail.streamIdentifier);
  if (!childFiles_.AddTail(moved)) throw FileDataCorruptException();
}

std::uint64_t PagedFilePackage::CompactedPageCount(std::uint64_t restBytes) const {
  const std::vector<bool> free = allocator_->GetFreePages();
  const auto used = static_cast<std::uint64_t>(std::count(free.begin(), free.end(), false));
  // The head chain's length depends on the allocation table's, which is
  // the page count it is part of: grown until it holds.
  std::uint64_t head = 1;
  for (;;) {
    const std::uint64_t need = ChainPagesFor(8 + 8 * (used + head) + restBytes);
    if (need <= head) return used + head;
    head = need;
  }
}

std::uint64_t PagedFilePackage::MovePagesBelow(std::uint64_t end) {
  const std::vector<bool> free = allocator_->GetFreePages();
  std::vector<std::uint64_t> targets;  // free pages before the end; page 10 stays for the head chain
  std::vector<std::uint64_t> movers;   // pages in use at or past the end
  for (std::uint64_t i = 0; i < free.size(); ++i) {
    const std::uint64_t page = kFirstPageId + i;
    if (page < end && free[i] && page != kFirstPageId) targets.push_back(page);
    if (page >= end && !free[i]) movers.push_back(page);
  }
  if (movers.size() > targets.size()) throw FileDataCorruptException();
  // Who names a page that moves: a stream whose chain starts on it, a
  // child file that lists it.
  std::unordered_multimap<std::uint64_t, std::uint64_t> streamsStartingOn;
  for (std::uint64_t i = 0; i < streams_.GetCount(); ++i) {
    const StreamEntry* entry = streams_.Find(streams_.GetIdentifier(i));
    if (entry->firstPage >= end) streamsStartingOn.emplace(entry->firstPage, entry->identifier);
  }
  std::unordered_multimap<std::uint64_t, std::pair<std::uint64_t, std::uint64_t>> childFileSlots;
  for (std::uint64_t i = 0; i < childFiles_.GetChildFileCount(); ++i) {
    const ChildFileRecord* child = childFiles_.FindChildFile(childFiles_.GetChildFileIdentifier(i));
    for (std::uint64_t p = 0; p < kChildFilePages; ++p) {
      if (child->page[p] >= end) childFileSlots.emplace(child->page[p], std::make_pair(child->identifier, p));
    }
  }
  std::vector<std::uint8_t> image(kPageSize);
  for (std::size_t k = 0; k < movers.size(); ++k) {
    const std::uint64_t from = movers[k];
    const std::uint64_t to = targets[k];
    // A run of consecutive pages comes in one read (up to what one call moves).
    if (!cache_->IsCached(from)) cache_->Prefetch(from, RunLength(movers, k));
    CopyPage(from, to, image.data());
    allocator_->MovePage(from, to);
    const auto streams = streamsStartingOn.equal_range(from);
    for (auto s = streams.first; s != streams.second; ++s) streams_.SetFirstPage(s->second, to);
    const auto slots = childFileSlots.equal_range(from);
    for (auto c = slots.first; c != slots.second; ++c) {
      childFiles_.SetChildFilePage(c->second.first, c->second.second, to);
    }
  }
  return movers.size();
}

void PagedFilePackage::CopyPage(std::uint64_t from, std::uint64_t to, std::uint8_t* image) {
  if (PageOffset(from) >= cache_->GetFileLength()) {
    std::memset(image, 0, kPageSize);  // a page past the file's end reads as zeros
  } else {
    PageRef source(cache_.get());
    const std::uint8_t* bytes = source.AcquireForRead(from);
    if (bytes == nullptr) throw FileIOException(0);
    std::memcpy(image, bytes, kPageSize);
  }
  std::uint8_t* target = cache_->GetPage(to, false, true);
  if (target == nullptr) throw FileIOException(0);
  std::memcpy(target, image, kPageSize);
  cache_->UnpinPage(to);
}

}  // namespace Tovrel
