#include "package/PagedFilePackage.h"

#include <algorithm>
#include <cassert>
#include <cwchar>
#include <utility>

#include "pagefile/ChildFileSeeker.h"
#include "pagefile/FileDataCorruptException.h"
#include "pagefile/HeadFileSeeker.h"
#include "pagefile/HeadFileWriteOnlySeeker.h"
#include "pagefile/InvalidParameterException.h"
#include "pagefile/PageGeometry.h"
#include "streams/PagedFileStream.h"

namespace Tovrel {

namespace {

constexpr std::uint64_t kTailMask = kPageSize - 1;
constexpr std::uint64_t kPageShift = 13;

}  // namespace

PagedFilePackage::PagedFilePackage(const PagedFilePackageConfig& config)
    : modified_(false),
      access_(FilePageCache::Access::kUpdate),
      config_(config),
      path_(config.filePath != nullptr ? config.filePath : L""),
      allocator_(new PageAllocator) {
  config_.filePath = path_.c_str();
}

PagedFilePackage::~PagedFilePackage() {
  bool saved = true;
  if (modified_) {
    try {
      saved = Save();
    } catch (...) {
      saved = false;
    }
  }
  // A save that failed half-way is taken back: the file keeps its last
  // completed save. Nothing can be reported from here.
  if (saved) {
    Close();
  } else {
    Abandon();
  }
}

void PagedFilePackage::CheckInvariants() const {
  assert(config_.filePath == path_.c_str());
  assert(!headSeeker_ || cache_);
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
  modified_ = false;
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
  Close();
  access_ = FilePageCache::Access::kUpdate;
  cache_.reset(new FilePageCache(path_.c_str(), config_.cachePageCount));
  streams_.Clear();
  streams_.SetStreamLimit(config_.streamLimit);
  modified_ = true;
  Save();
  return true;
}

bool PagedFilePackage::Load() {
  cache_.reset(new FilePageCache(path_.c_str(), config_.cachePageCount, access_));
  RefPtr<HeadFileSeeker> reader(new HeadFileSeeker(cache_.get()));
  headSeeker_ = reader.Get();
  if (!reader->OpenForRead()) return false;
  // The whole chain is checked now, so that a later save frees exactly its
  // pages and never meets a broken link.
  reader->LoadPagesUpTo(reader->pageCount - 1);
  RefPtr<IDataStream> head(new PagedFileStream(cache_.get(), headSeeker_));
  if (!allocator_->LoadTable(head) || !streams_.Read(head, config_.streamLimit) ||
      !childFiles_.Read(head, config_.streamLimit) || !userData_.Read(head)) {
    return false;
  }
  cache_->SetSavedFreePages(allocator_->GetFreePages());
  return true;
}

bool PagedFilePackage::Reload() {
  CheckInvariants();
  if (!openStreams_.empty()) return false;
  // Pages written since the last save are dropped, whatever the outcome,
  // and those already written to the file are taken back first, so that
  // the file read is the last completed save.
  if (!RollBackPageWrites()) return false;
  RefPtr<PagedFilePackage> loaded(new PagedFilePackage(config_));
  loaded->access_ = access_;
  bool success = false;
  try {
    if (!loaded->Load()) throw FileDataCorruptException();
    success = true;
  } catch (...) {
    success = false;
  }
  if (!success) {
    loaded->Close();
    return false;
  }
  SwapState(*loaded);
  loaded.Reset();  // the former state: saved if it was modified, then closed
  return true;
}

void PagedFilePackage::SwapState(PagedFilePackage& other) {
  std::swap(modified_, other.modified_);
  std::swap(access_, other.access_);
  std::swap(config_, other.config_);
  path_.swap(other.path_);
  cache_.swap(other.cache_);
  allocator_.Swap(other.allocator_);
  std::swap(streams_, other.streams_);
  std::swap(childFiles_, other.childFiles_);
  std::swap(userData_, other.userData_);
  headSeeker_.Swap(other.headSeeker_);
  openStreams_.swap(other.openStreams_);
  config_.filePath = path_.c_str();
  other.config_.filePath = other.path_.c_str();
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
  RefPtr<ChildFileStream> stream(new ChildFileStream(this, identifier, cache_.get(), base));
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
  const std::uint64_t fullPages = size >> kPageShift;
  // A stream that no file can hold, or a tail that would need a child file
  // beyond what a file with this limit may hold (it could not be read
  // back), is refused before anything changes.
  if (fullPages > kPageLimit) return kNoStream;
  if (tail != 0 && childFiles_.FindRoom(tail) == ChildFileTable::kNone &&
      childFiles_.GetChildFileCount() >= ChildFileTable::ChildFileLimit(config_.streamLimit)) {
    return kNoStream;
  }
  modified_ = true;
  StreamEntry entry{kNoStream, size, 0, fullPages};
  if (fullPages != 0) entry.firstPage = AllocateChain(fullPages);
  const std::uint64_t identifier = streams_.Add(entry);
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

void PagedFilePackage::CompactChildFile(const StreamTailRecord& tail) {
  const ChildFileRecord* child = childFiles_.FindChildFile(tail.childFileIdentifier);
  RefPtr<ChildFileSeeker> seeker(new ChildFileSeeker);
  seeker->AttachStream(allocator_.Get(), StreamEntry{kNoStream, kChildFileSize, child->page[0], kChildFilePages},
                       TailLocation{});
  RefPtr<IPagedFileSeeker> base(seeker.Get());
  RefPtr<PagedFileStream> stream(new PagedFileStream(cache_.get(), base));
  ReleaseOpenStreamPages();
  if (!stream->RemoveRange(static_cast<std::int32_t>(tail.offset), static_cast<std::uint32_t>(tail.size))) {
    throw FileDataCorruptException();
  }
}

bool PagedFilePackage::RemoveStream(std::uint64_t identifier) {
  CheckInvariants();
  if (openStreams_.count(identifier) != 0) return false;
  const StreamEntry* found = streams_.Find(identifier);
  if (found == nullptr) return true;
  const StreamEntry entry = *found;
  // The tail is checked (it must lie in its child file's used bytes) and
  // its bytes closed up before any table changes, so that a corrupt tail
  // leaves the stream as it was.
  TailLocation location{};
  ChildFileSeeker::LocateTail(location, childFiles_, identifier);
  modified_ = true;
  const StreamTailRecord* tail = childFiles_.FindTail(identifier);
  if (tail != nullptr) CompactChildFile(*tail);
  FreeChain(entry.firstPage, entry.fullPageCount);
  if (!streams_.Remove(identifier)) return false;
  if (tail != nullptr) {
    const std::uint64_t child = tail->childFileIdentifier;
    childFiles_.RemoveTail(identifier);
    MoveOpenTails(child);
  }
  return true;
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

bool PagedFilePackage::Save() {
  CheckInvariants();
  if (!modified_) return true;
  if (!cache_ || access_ == FilePageCache::Access::kReadOnly) return false;
  FreeHeadChain();
  const std::uint64_t rest = streams_.GetSaveSize() + childFiles_.GetSaveSize() + userData_.GetSaveSize();
  const std::vector<std::uint64_t> pages = LayOutHeadChain(rest);
  std::vector<std::uint64_t> nexts(pages.begin() + 1, pages.end());
  nexts.push_back(0);
  RefPtr<HeadFileWriteOnlySeeker> writer(new HeadFileWriteOnlySeeker(cache_.get()));
  headSeeker_ = writer.Get();
  ReleaseOpenStreamPages();
  const std::uint64_t size = allocator_->GetTableSaveSize() + rest;
  if (!writer->InitializeForWrite(pages.data(), nexts.data(), pages.size(), size)) return false;
  {
    RefPtr<IDataStream> head(new PagedFileStream(cache_.get(), headSeeker_));
    WriteSections(head);
  }
  ReleaseOpenStreamPages();
  ReopenCache();
  cache_->SetSavedFreePages(allocator_->GetFreePages());
  modified_ = false;
  return true;
}

}  // namespace Tovrel
