#include "effectcache/EffectFileView.h"

#include <algorithm>
#include <new>

#include "effectcache/CacheFileNames.h"
#include "effectcache/ChangeMark.h"
#include "effectcache/EffectCacheImpl.h"
#include "effectcache/EffectIndex.h"
#include "effectcache/UserDataBlock.h"
#include "host/TabOutOfRangeException.h"
#include "package/PagedFilePackage.h"
#include "pagefile/FileDataCorruptException.h"
#include "pagefile/FileIOException.h"
#include "platform/LocalClock.h"
#include "platform/PlatformFile.h"
#include "shared/SharedBlockAccess.h"

namespace Tovrel {

bool EffectFileView::InitializeTimeStamp() {
  // Without its shared stamp the cache cannot share the file: it stays
  // unusable until the stamp can be had.
  if (cache_.stampReady_) return true;
  try {
    const std::wstring name = CacheFileNames::TimeStampName(cache_.cacheFilePath_.data());
    cache_.stampReady_ = SharedBlockAccess::Open([this, &name] { return cache_.timeStamp_.Initialize(name.c_str()); });
  } catch (const std::exception&) {
    cache_.stampReady_ = false;
  }
  return cache_.stampReady_;
}

bool EffectFileView::EnsureOpen() {
  if (cache_.package_ || !cache_.retryOpen_) return static_cast<bool>(cache_.package_);
  const std::uint32_t now = LocalClock::TickCount();
  if (cache_.openAttempted_ && now - cache_.lastOpenAttempt_ < cache_.OpenRetryMilliseconds().load()) return false;
  cache_.openAttempted_ = true;
  cache_.lastOpenAttempt_ = now;
  if (!InitializeTimeStamp()) return false;
  // Taken to read: opening a file that is there and whole writes nothing
  // (what writes says so first), and other processes' searches go on.
  CacheFileLock::Hold hold(*cache_.fileLock_, CacheFileLock::Intent::kRead);
  if (!hold.IsOwner()) return false;
  // Only a file proven damaged or foreign (or missing) is replaced; one
  // that could not be read as it is stays untouched for a later try.
  const OpenOutcome opened = OpenCacheFile();
  if (opened == OpenOutcome::kCorrupt && !ReplaceDamagedFile()) cache_.DropPackage();
  if (cache_.package_) cache_.retryOpen_ = false;
  cache_.NoteQueueOpen();
  return static_cast<bool>(cache_.package_);
}

EffectPayload::Result EffectFileView::ReadStoredBytes(const EffectRecord& record,
                                                      std::vector<std::uint8_t>& compressed) {
  EffectPayload::Result result = EffectPayload::Result::kNoStream;
  const std::uint64_t failures = PlatformFile::FailuresOnThisThread();
  try {
    result = EffectPayload::ReadBlock(*cache_.package_, record, compressed);
  } catch (const FileDataCorruptException&) {
    result = EffectPayload::Result::kUnreadable;
  }
  if (result != EffectPayload::Result::kOk && PlatformFile::FailuresOnThisThread() != failures) {
    return EffectPayload::Result::kTrouble;
  }
  return result;
}

EffectPayload::Result EffectFileView::ReadStored(const EffectRecord& record, Tab<unsigned char>& data) {
  std::vector<std::uint8_t> compressed;
  const EffectPayload::Result read = ReadStoredBytes(record, compressed);
  return read == EffectPayload::Result::kOk ? EffectPayload::DecompressBlock(record, compressed, data) : read;
}

EffectFileView::OpenOutcome EffectFileView::OpenCacheFile() {
  const std::uint64_t failures = PlatformFile::FailuresOnThisThread();
  try {
    CacheFileLock::Hold hold(*cache_.fileLock_, CacheFileLock::Intent::kRead);
    if (!hold.IsOwner()) return OpenOutcome::kUnavailable;
    // Opening makes a missing file, and rolls a dead writer's journal back.
    if (!PlatformFile::Exists(cache_.config_.filePath) || PlatformFile::Exists(cache_.journalPath_.c_str()))
      cache_.fileLock_->WillWrite();
    if (PlatformFile::OtherOwner(cache_.config_.filePath) >= 0) {
      // Named objects belong to their user: another user's hosts lock and
      // stamp the file through objects this process cannot meet, so it
      // reads their file and never writes it.
      if (!OpenReadOnly(CacheWriteAccess::Why::kOtherOwner)) return OpenOutcome::kUnavailable;
    } else {
      PagedFilePackage::LoadFailure why = PagedFilePackage::LoadFailure::kNone;
      RefPtr<PagedFilePackage> opened = PagedFilePackage::Open(cache_.config_, &why);
      if (opened) {
        cache_.package_ = RefPtr<IDataStreamSet>(opened.Get());
      } else if (why == PagedFilePackage::LoadFailure::kCorrupt) {
        return OpenOutcome::kCorrupt;
      } else if (!OpenReadOnlyIfNotWritable()) {
        return OpenOutcome::kUnavailable;
      }
    }
    OpenOutcome loaded = LoadView();
    if (loaded == OpenOutcome::kCannotWrite) loaded = OpenWithoutWriting();
    if (loaded != OpenOutcome::kOpened) cache_.DropPackage();
    return loaded == OpenOutcome::kCannotWrite ? OpenOutcome::kUnavailable : loaded;
  } catch (const std::bad_alloc&) {
    cache_.DropPackage();
    return OpenOutcome::kUnavailable;
  } catch (const std::exception&) {
    cache_.DropPackage();
    return PlatformFile::FailuresOnThisThread() != failures ? OpenOutcome::kUnavailable : OpenOutcome::kCorrupt;
  }
}

bool EffectFileView::OpenReadOnlyIfNotWritable() {
  // Only a file that opens for reading and not for update: any other
  // failure is a file the cache may create afresh.
  FileHandle* probe = PlatformFile::Open(cache_.config_.filePath, "r+b");
  if (probe != nullptr) {
    PlatformFile::Close(probe);
    return false;
  }
  probe = PlatformFile::Open(cache_.config_.filePath, "rb");
  if (probe == nullptr) return false;
  PlatformFile::Close(probe);
  return OpenReadOnly(CacheWriteAccess::Why::kFileNotWritable);
}

bool EffectFileView::OpenReadOnly(CacheWriteAccess::Why why) {
  RefPtr<PagedFilePackage> package(new PagedFilePackage(cache_.config_));
  if (!package->LoadReadOnly()) return false;
  cache_.package_ = RefPtr<IDataStreamSet>(package.Get());
  cache_.readOnly_ = true;
  cache_.readOnlyWhy_ = why;
  return true;
}

bool EffectFileView::ReplaceDamagedFile() {
  if (cache_.readOnly_) return false;  // a file that may not be written is never replaced
  CacheFileLock::Hold hold(*cache_.fileLock_);
  if (!hold.IsOwner()) return false;
  cache_.DropPackage();
  EffectCacheSalvage::Found found = EffectCacheSalvage::Collect(cache_.config_);
  if (found.summary.verdict == EffectCacheSalvage::Verdict::kUnreadable) return false;  // tried again later
  return ReplaceWith(found);
}

bool EffectFileView::ReplaceWith(EffectCacheSalvage::Found& found) {
  const std::wstring file(cache_.cacheFilePath_.data());
  // Until the damaged bytes are kept whole beside it, the file is not
  // touched. With no room for them the cache stays unusable rather than
  // read the file again at every try; a copy that failed otherwise is
  // tried again later.
  if (found.summary.verdict == EffectCacheSalvage::Verdict::kSalvaged) {
    if (PlatformFile::AvailableBytes(cache_.folderPath_.data()) < found.summary.fileBytes) {
      cache_.retryOpen_ = false;
      return false;
    }
    if (!EffectCacheSalvage::KeepDamagedCopy(file)) return false;
  }
  if (!CreateCacheFile(&found.kept)) return false;
  cache_.lastSalvage_ = found.summary;
  cache_.salvaged_ = true;
  return true;
}

bool EffectFileView::CreateCacheFile(std::vector<EffectCacheSalvage::Effect>* kept) {
  if (cache_.readOnly_) return false;  // a file that may not be written is never replaced
  cache_.ResetState();
  try {
    CacheFileLock::Hold hold(*cache_.fileLock_);
    if (!hold.IsOwner()) return false;
    cache_.DropPackage();
    // One save makes the whole new file: until it commits, a failure or a
    // crash leaves the former file as it was (a damaged one is then
    // salvaged again at the next try).
    RefPtr<PagedFilePackage> fresh(new PagedFilePackage(cache_.config_));
    fresh->Replace();
    cache_.package_ = RefPtr<IDataStreamSet>(fresh.Get());
    cache_.timeStamp_.UpdateTimeStamp();
    cache_.header_ = EffectCacheHeader::Empty();
    cache_.header_.indexStreamId = cache_.package_->CreateStream(1);
    if (!cache_.package_->OpenStream(cache_.header_.indexStreamId)) throw FileIOException();
    cache_.knownMark_ = ChangeMark{};
    cache_.staleView_ = false;
    if (kept != nullptr && !kept->empty()) {
      std::vector<EffectCacheImpl::StoredCopy> copies;
      copies.reserve(kept->size());
      for (EffectCacheSalvage::Effect& effect : *kept) {
        copies.push_back(EffectCacheImpl::StoredCopy{std::move(effect.name), effect.record, std::move(effect.compressed)});
      }
      kept->clear();
      return cache_.WriteCopies(copies, nullptr, nullptr);
    }
    const ChangeMark mark = ChangeMark{}.Next();
    if (!WriteHeader() || !ChangeMark::WriteLast(*cache_.package_, mark) || !cache_.package_->Save())
      throw FileIOException();
    cache_.knownMark_ = mark;
    return true;
  } catch (const std::exception&) {
    cache_.AbandonWrite();
    return false;
  }
}

bool EffectFileView::WriteHeader() {
  if (!cache_.package_) return false;
  std::uint8_t* payload =
      UserDataBlock::Ensure(*cache_.package_, EffectCacheHeader::kTag, EffectCacheHeader::kPayloadSize);
  if (payload == nullptr) return false;
  cache_.header_.effectCount = cache_.fileEffects_.Size();
  cache_.header_.Encode(payload);
  return true;
}

EffectFileView::OpenOutcome EffectFileView::LoadView() {
  // Read into copies and taken as a whole, so that a load that fails half
  // way (a failed read, no memory) leaves no half-loaded index in use.
  const std::uint64_t failures = PlatformFile::FailuresOnThisThread();
  const IDataStreamSet& package = *cache_.package_;
  EffectCacheHeader header{};
  if (!EffectCacheHeader::Read(package.GetUserData(), package.GetUserDataSize(), header)) return OpenOutcome::kCorrupt;
  RefPtr<IDataStream> stream = cache_.package_->OpenStream(header.indexStreamId);
  const auto* paged = dynamic_cast<const PagedFilePackage*>(&package);
  const std::uint64_t fileBytes = paged != nullptr ? paged->GetFileLength() : ~std::uint64_t{0};
  EffectTable table;
  if (!EffectIndex::ReadAll(stream, header.effectCount, fileBytes, table)) {
    return PlatformFile::FailuresOnThisThread() != failures ? OpenOutcome::kUnavailable : OpenOutcome::kCorrupt;
  }
  stream.Reset();
  cache_.header_ = header;
  cache_.fileEffects_.Swap(table);
  cache_.knownMark_ = ChangeMark::Read(package);
  cache_.staleView_ = false;
  return TrimAfterLoad() ? OpenOutcome::kOpened : OpenOutcome::kCannotWrite;
}

EffectFileView::OpenOutcome EffectFileView::OpenWithoutWriting() {
  // A cache whose file is whole serves it even when nothing can be
  // written: searches find every stored effect, new effects wait in memory
  // up to the size limit, and the trim is left to a later open that can
  // write it.
  cache_.DropPackage();
  const bool journal = CacheWriteAccess::CanCreateJournal(cache_.cacheFilePath_.data());
  if (!OpenReadOnly(journal ? CacheWriteAccess::Why::kWriteFailed : CacheWriteAccess::Why::kNoJournal))
    return OpenOutcome::kUnavailable;
  return LoadView();
}

bool EffectFileView::ServeWithoutJournal() {
  // The save that failed wrote nothing to the file (the journal comes
  // before any page is overwritten); the view is read again from the file
  // as it is, and the effects that save took stay pending in memory.
  try {
    if (OpenWithoutWriting() != OpenOutcome::kOpened) cache_.DropPackage();
  } catch (const std::exception&) {
    cache_.DropPackage();  // no memory, or a file that no longer reads: unusable, as any failed save leaves it
  }
  cache_.NoteQueueOpen();
  return static_cast<bool>(cache_.package_);
}

bool EffectFileView::TrimAfterLoad() {
  if (cache_.readOnly_) return true;  // nothing is trimmed from a file that may not be written
  try {
    std::uint64_t removed = 0;
    const std::uint64_t limit = GetSizeLimit();
    if (cache_.package_ && cache_.package_->GetTotalStreamSize() >= limit) cache_.fileLock_->WillWrite();
    TrimToLimit(limit, &removed);
    cache_.counts_.trimmed += removed;
    // A trim changed the file: make it durable now, under the mutex, as a
    // save would, so that the package holds no unsaved change.
    if (removed == 0 || cache_.saver_.SaveDirectory()) return true;
  } catch (const std::bad_alloc&) {
    cache_.AbandonWrite();
    throw;
  } catch (const std::exception&) {
  }
  cache_.AbandonWrite();  // the file keeps its last completed save
  return false;
}

bool EffectFileView::RefreshIfChanged() {
  // A journal beside the file under the mutex is a dead writer's: its save
  // never completed. The reload rolls it back before it reads anything. A
  // read-only view cannot roll it back, and reads through it already.
  const bool interrupted = !cache_.readOnly_ && PlatformFile::Exists(cache_.journalPath_.c_str());
  // The stamp's news is kept until a reload succeeds: a reload that fails
  // is tried again at the next look.
  if (cache_.timeStamp_.IsChanged() || interrupted) cache_.staleView_ = true;
  // A writer that died after its commit point changed the file without
  // renewing the stamp: when anyone wrote since this object last held the
  // lock, the file's change mark must still be the one it knows.
  if (!cache_.staleView_ && cache_.fileLock_->HeldElsewhereSince() && !FileMarkIsKnown()) cache_.staleView_ = true;
  if (!cache_.staleView_) return true;
  cache_.fileLock_->WillWrite();  // a reload may roll a journal back
  return ReloadView();
}

bool EffectFileView::ReloadView() {
  if (!cache_.package_) return false;
  try {
    return cache_.package_->Reload() && LoadView() == OpenOutcome::kOpened;
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const NorvaneSDK::Util::TabOutOfRangeException&) {
    throw;
  } catch (const std::exception&) {
    return false;  // the view stays stale: nothing is written from it
  }
}

bool EffectFileView::MakeViewCurrent() {
  // The shared stamp tells of other processes' saves, but it can be lost;
  // the file's change mark cannot. A view that the mark does not prove is
  // loaded again before anything is written.
  if (!RefreshIfChanged()) return false;
  if (cache_.readOnly_ || FileMarkIsKnown()) return true;
  cache_.staleView_ = true;
  return ReloadView();
}

bool EffectFileView::FileMarkIsKnown() {
  auto* paged = dynamic_cast<PagedFilePackage*>(cache_.package_.Get());
  if (paged == nullptr || !cache_.knownMark_.present) return false;
  std::uint8_t block[ChangeMark::kBlockSize];
  try {
    if (!paged->ReadSavedUserDataTail(block, sizeof block)) return false;
  } catch (const std::exception&) {
    return false;
  }
  return cache_.knownMark_.Proves(ChangeMark::FromBlock(block));
}

bool EffectFileView::TrimToLimit(std::uint64_t limit, std::uint64_t* removed) {
  if (!cache_.package_) return false;
  if (cache_.package_->GetTotalStreamSize() < limit) return true;  // nothing to remove: no need to sort
  const std::vector<std::size_t> candidates = cache_.fileEffects_.OldestFirst(true);
  std::vector<bool> gone(cache_.fileEffects_.Size(), false);
  try {
    for (std::size_t i : candidates) {
      if (cache_.package_->GetTotalStreamSize() < limit) break;
      try {
        cache_.package_->RemoveStream(cache_.fileEffects_.At(i).record.streamId);
      } catch (const FileDataCorruptException&) {
        continue;  // a stream whose pages are not its own alone is left, and its entry with it
      }
      gone[i] = true;
      if (removed != nullptr) ++*removed;
    }
  } catch (...) {
    cache_.fileEffects_.EraseMarked(gone);  // the streams already removed leave the index too
    throw;
  }
  cache_.fileEffects_.EraseMarked(gone);
  return cache_.package_->GetTotalStreamSize() < limit;
}

std::uint64_t EffectFileView::GetSizeLimit() const {
  // The bytes the file already stores are on the disk already: trimming
  // them frees no space (their pages stay in the file), so they count as
  // room.
  const std::uint64_t stored = cache_.package_ ? cache_.package_->GetTotalStreamSize() : 0;
  const std::uint64_t free = PlatformFile::AvailableBytes(cache_.folderPath_.data());
  return std::min(free + stored < free ? ~std::uint64_t{0} : free + stored, cache_.cacheBytesLimit_);
}

}  // namespace Tovrel
