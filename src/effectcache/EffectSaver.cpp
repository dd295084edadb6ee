#include "effectcache/EffectSaver.h"

#include <algorithm>
#include <memory>
#include <new>
#include <shared_mutex>
#include <utility>
#include <vector>

#include "effectcache/CacheFileNames.h"
#include "effectcache/CacheTimeStamp.h"
#include "effectcache/CacheWriteAccess.h"
#include "effectcache/EffectCacheImpl.h"
#include "effectcache/EffectCacheStats.h"
#include "effectcache/EffectIndex.h"
#include "effectcache/EffectPayload.h"
#include "effectcache/EffectRecord.h"
#include "effectcache/EffectSaveQueue.h"
#include "effectcache/ParallelJobs.h"
#include "pagefile/FileDataCorruptException.h"
#include "pagefile/FileIOException.h"
#include "pagefile/FilePageCache.h"
#include "pagefile/SavedImages.h"
#include "platform/PlatformFile.h"
#include "streams/StreamTransfer.h"

namespace Tovrel {

namespace {

// Bytes of the index stream: the entries that can be written.
std::uint64_t IndexSize(const EffectTable& effects) {
  std::uint64_t size = 0;
  for (const EffectTable::Entry& entry : effects) {
    if (EffectIndex::IsWritable(entry.name, entry.record)) size += EffectIndex::EntrySize(entry.name);
  }
  return size;
}

}  // namespace

bool EffectSaver::SaveIndex() {
  if (!cache_.package_) return false;
  cache_.fileEffects_.FoldUses();  // the searches' uses go into the index
  // An index with no entries keeps one byte: a stream is never empty.
  const std::uint64_t size = std::max<std::uint64_t>(IndexSize(cache_.fileEffects_), 1);
  RefPtr<IDataStream> stream;
  if (cache_.header_.indexStreamId != EffectCacheHeader::kNoIndex) {
    stream = cache_.package_->OpenStream(cache_.header_.indexStreamId);
    if (stream && stream->GetSize() != size) {
      stream.Reset();
      cache_.package_->RemoveStream(cache_.header_.indexStreamId);
    }
  }
  if (!stream) {
    cache_.header_.indexStreamId = cache_.package_->CreateStream(size);
    stream = cache_.package_->OpenStream(cache_.header_.indexStreamId);
    if (!stream) return false;
  }
  for (const EffectTable::Entry& entry : cache_.fileEffects_) {
    if (!EffectIndex::IsWritable(entry.name, entry.record)) continue;
    if (!EffectIndex::WriteEntry(stream, entry.name, entry.record)) return false;
  }
  return true;
}

bool EffectSaver::WritePendingEffects() {
  if (!cache_.package_) return false;
  const std::uint64_t room = std::min(PlatformFile::AvailableBytes(cache_.folderPath_.data()), cache_.cacheBytesLimit_);
  if (room < cache_.pendingBytes_) {
    cache_.DiscardPending();  // too little disk: the effects are dropped and the save succeeds
    return true;
  }
  const std::uint64_t limit = cache_.view_.GetSizeLimit();
  std::uint64_t trimmed = 0;
  const bool fits = limit >= cache_.pendingBytes_ && cache_.view_.TrimToLimit(limit - cache_.pendingBytes_, &trimmed);
  cache_.counts_.trimmed += trimmed;
  if (!fits) {
    cache_.DiscardPending();
    return true;
  }
  std::vector<EffectBatchCompressor::Result> compressed = CompressPending();
  // The index changes as one batch, in name order (the pending map's own),
  // whether every effect was written or not.
  std::vector<EffectTable::Change> changes;
  changes.reserve(cache_.pendingEffects_.size());
  bool written = true;
  std::size_t i = 0;
  try {
    for (const auto& entry : cache_.pendingEffects_) {
      written = WritePendingEffect(entry.first, entry.second.Size(),
                                   entry.second.permanent, compressed[i++], changes);
      if (!written) break;
    }
  } catch (...) {
    cache_.fileEffects_.Apply(std::move(changes));  // streams already replaced leave the index
    throw;
  }
  cache_.fileEffects_.Apply(std::move(changes));
  // The pending effects stay until the directory is saved too (the
  // caller drops them then): a save refused at its end keeps them.
  if (written) CollectRemotePushes(compressed);
  return written;
}

std::vector<EffectBatchCompressor::Result> EffectSaver::CompressPending() {
  // Every effect is compressed before the first is written: compression
  // runs on several cores, and the writes find their bytes ready. Effects
  // fetched from the remote store keep the compressed bytes they came in.
  std::vector<EffectBatchCompressor::Job> jobs;
  jobs.reserve(cache_.pendingEffects_.size());
  for (const auto& entry : cache_.pendingEffects_) {
    const PendingEffect& effect = entry.second;
    if (!effect.compressed.empty()) continue;
    jobs.push_back(
        {effect.bytes.Count() ? effect.bytes.Addr(0) : nullptr, static_cast<std::uint64_t>(effect.bytes.Count())});
  }
  std::vector<EffectBatchCompressor::Result> done = EffectBatchCompressor::CompressAll(jobs, cache_.compressionLevel_);
  if (jobs.size() == cache_.pendingEffects_.size()) return done;  // none came compressed
  std::vector<EffectBatchCompressor::Result> results;
  results.reserve(cache_.pendingEffects_.size());
  std::size_t next = 0;
  for (auto& entry : cache_.pendingEffects_) {
    PendingEffect& effect = entry.second;
    if (effect.compressed.empty()) {
      results.push_back(std::move(done[next++]));
    } else {
      EffectBatchCompressor::Result kept;
      kept.ok = true;
      kept.compressed.swap(effect.compressed);
      kept.milliseconds = effect.compressMilliseconds;
      results.push_back(std::move(kept));
    }
  }
  return results;
}

void EffectSaver::CollectRemotePushes(std::vector<EffectBatchCompressor::Result>& compressed) {
  // The bytes are written: they move to the pushes rather than being copied.
  remotePushes_.clear();
  if (!cache_.remote_ || cache_.remote_->GetSettings().readOnly) return;
  std::size_t i = 0;
  for (const auto& entry : cache_.pendingEffects_) {
    EffectBatchCompressor::Result& result = compressed[i++];
    if (entry.second.fromRemote || !result.ok) continue;
    remotePushes_.push_back(RemotePush{entry.first, entry.second.permanent != 0,
                                       entry.second.Size(),
                                       std::move(result.compressed)});
  }
}

bool EffectSaver::WritePendingEffect(const std::string& name, std::uint64_t n, std::uint32_t permanent,
                                     const EffectBatchCompressor::Result& compressed,
                                     std::vector<EffectTable::Change>& changes) {
  if (const EffectRecord* stored = cache_.fileEffects_.Find(name)) {
    const std::uint64_t old = stored->streamId;
    changes.push_back(EffectTable::Change{name, EffectRecord{}, true});
    cache_.package_->RemoveStream(old);
  }
  if (!compressed.ok) return false;
  const auto c = static_cast<std::uint64_t>(compressed.compressed.size());
  cache_.profile_.AddCompression(n, c, compressed.milliseconds);
  std::uint64_t id = 0;
  if (!WriteEffectStream(compressed.compressed.data(), c, &id)) return false;
  const EffectRecord record{id,
                            static_cast<std::uint32_t>(name.size()),
                            static_cast<std::uint32_t>(n),
                            permanent,
                            CacheTimeStamp::Now(),
                            static_cast<std::uint32_t>(c),
                            0};
  if (!changes.empty() && changes.back().name == name) {
    changes.back() = EffectTable::Change{name, record, false};
  } else {
    changes.push_back(EffectTable::Change{name, record, false});
  }
  return true;
}

bool EffectSaver::WriteEffectStream(const std::uint8_t* compressed, std::uint64_t size, std::uint64_t* id) {
  // An effect's stream: its compressed bytes as a length-prefixed block.
  *id = cache_.package_->CreateStream(size + 8);
  RefPtr<IDataStream> stream = cache_.package_->OpenStream(*id);
  return stream && StreamTransfer::WriteBytes(compressed, size, stream);
}

void EffectSaver::SaveInBackground() noexcept {
  // What was queued when the run began is saved in batches of about the
  // size that starts a save: the object's lock (which searches of stored
  // effects need) is held for one batch's writes at a time, not for all.
  EffectSaveQueue& queue = cache_.queue_;
  const std::uint64_t owed = queue.Bytes();
  std::uint64_t taken = 0;
  bool first = true;
  do {
    const bool any = queue.Take(EffectCacheImpl::kAutoSaveThreshold);
    if (!any && !first) break;  // the first saves what is pending even with nothing queued
    first = false;
    taken += queue.SavingBytes();
    if (!SaveBatch()) break;
  } while (taken < owed);
}

bool EffectSaver::SaveBatch() noexcept {
  EffectSaveQueue& queue = cache_.queue_;
  try {
    // The effects stay in the queue, where searches find them, until the
    // index (or, when the save could not write them, the pending map)
    // holds them.
    std::vector<EffectBatchCompressor::Job> jobs;
    jobs.reserve(queue.Saving().size());
    for (const auto& entry : queue.Saving()) {
      jobs.push_back({entry.second.bytes.Addr(0), static_cast<std::uint64_t>(entry.second.bytes.Count())});
    }
    std::vector<EffectBatchCompressor::Result> compressed =
        EffectBatchCompressor::CompressAll(jobs, cache_.compressionLevel_);
    WaitForOtherHolders();
    BuildSnapshot();
    bool usable = false;
    {
      // Withdrawn once the object's lock is let go: a search that finds
      // the snapshot gone must not then wait for this thread, which runs
      // below the host's priority, to let the lock go.
      const SnapshotOffer offer{*this};
      // Searches that find the object's lock taken wait for the offer.
      const bool offering = static_cast<bool>(snapshot_);
      if (offering) cache_.search_.BeginOffer();
      std::lock_guard<ReaderWriterLock> guard(cache_.lock_);
      if (offering) cache_.search_.EndOffer(OfferSnapshot());
      AdoptSaving(compressed);
      SaveToFile();
      cache_.backgroundSaves_.fetch_add(1, std::memory_order_relaxed);
      queue.FinishInto(cache_.pendingEffects_);
      usable = static_cast<bool>(cache_.package_);
    }
    PushOwed();
    return usable;
  } catch (...) {
    // No memory for the copies, or a save that threw: the file keeps its
    // last completed save and the queued effects wait again.
    std::lock_guard<ReaderWriterLock> guard(cache_.lock_);
    cache_.AbandonWrite();
    queue.CopyBytesInto(cache_.pendingEffects_);
    queue.GiveBack();
    return false;
  }
}

void EffectSaver::WaitForOtherHolders() {
  // The file's mutex taken and let go at once, without the object's lock:
  // while another process saves, this thread waits here, and the host's
  // searches and counts go on; the save's own hold then seldom waits. A
  // mutex of its own, so the object's lock-keeping (CacheFileLock) sees
  // nothing of it.
  if (cache_.cacheFilePath_.isNull()) return;
  if (!otherHolders_) {
    otherHolders_.reset(
        new NorvaneSDK::Util::MutexObject(CacheFileNames::FileMutexName(cache_.cacheFilePath_.data()).c_str()));
  }
  const std::uint32_t result = otherHolders_->Acquire(NorvaneSDK::Util::MutexObject::kInfinite);
  if (result == NorvaneSDK::Util::MutexObject::kWaitObject0 || result == NorvaneSDK::Util::MutexObject::kWaitAbandoned) {
    otherHolders_->Release();
  }
}

void EffectSaver::AdoptSaving(std::vector<EffectBatchCompressor::Result>& compressed) {
  // Made before the pending map changes. The queue keeps the effects'
  // bytes for the searches until the save has ended: an effect with its
  // compressed bytes needs only its size here (the queue gives the bytes
  // back, should the save not complete); one whose compression failed is
  // copied, to be compressed again.
  PendingMap adopted;
  std::uint64_t bytes = 0;
  std::size_t i = 0;
  for (const auto& entry : cache_.queue_.Saving()) {
    PendingEffect& effect = adopted[entry.first];
    const auto size = static_cast<std::uint64_t>(entry.second.bytes.Count());
    effect.permanent = entry.second.permanent;
    if (compressed[i].ok) {
      effect.heldSize = size;
      effect.compressed.swap(compressed[i].compressed);
      effect.compressMilliseconds = compressed[i].milliseconds;
    } else {
      effect.bytes = entry.second.bytes;
    }
    ++i;
    bytes += EffectRecord::kSize + (8 + entry.first.size()) + (8 + size);
  }
  MovePendingEffects(adopted, cache_.pendingEffects_);
  cache_.pendingBytes_ += bytes;
}

bool EffectSaver::SaveToFile() {
  if (cache_.readOnly_) {
    PushPendingToRemote();
    return true;
  }
  const bool saved = SaveToFileUnderMutex();
  std::vector<RemotePush> pushes;
  pushes.swap(remotePushes_);
  if (saved && cache_.remote_ && !pushes.empty()) {
    std::lock_guard<std::mutex> guard(owedLock_);
    try {
      owed_.push_back(Owed{cache_.remote_, std::move(pushes)});
      anyOwed_.store(true, std::memory_order_release);
    } catch (const std::bad_alloc&) {
      // The save completed: the store misses these effects, not the file.
    }
  }
  return saved;
}

bool EffectSaver::SaveToFileUnderMutex() {
  if (!cache_.package_) return true;
  CacheFileLock::Hold hold(*cache_.fileLock_, CacheFileLock::Intent::kRead);
  if (!hold.IsOwner()) return false;
  if (cache_.pendingEffects_.empty() && cache_.damaged_.empty()) return true;
  ProtectSnapshot();
  cache_.fileLock_->WillWrite();
  // Nothing is written from a view that is not the file's: when it cannot
  // be brought up to date, the effects stay pending for the next save.
  if (!cache_.view_.MakeViewCurrent() || !cache_.package_) return false;
  try {
    DropDamagedEntries();
    if (!WritePendingEffects() || !SaveDirectory()) throw FileIOException();
    cache_.DiscardPending();
    return true;
  } catch (const std::exception&) {
    cache_.AbandonWrite();
    // A folder that refuses the journal (deployed read only) refuses every
    // save: the cache goes on serving the file as it is, read only.
    if (!CacheWriteAccess::CanCreateJournal(cache_.cacheFilePath_.data())) cache_.view_.ServeWithoutJournal();
    return false;
  }
}

void EffectSaver::PushPendingToRemote() {
  // A read-only file keeps its effects pending; a store that takes them
  // gets each one once.
  if (!cache_.package_ || !cache_.remote_ || cache_.remote_->GetSettings().readOnly) return;
  std::vector<EffectBatchCompressor::Job> jobs;
  std::vector<PendingEffect*> effects;
  std::vector<const std::string*> names;
  for (auto& entry : cache_.pendingEffects_) {
    PendingEffect& effect = entry.second;
    if (effect.fromRemote || effect.pushed || effect.bytes.Count() == 0) continue;
    jobs.push_back({effect.bytes.Addr(0), static_cast<std::uint64_t>(effect.bytes.Count())});
    effects.push_back(&effect);
    names.push_back(&entry.first);
  }
  if (jobs.empty()) return;
  const std::vector<EffectBatchCompressor::Result> compressed =
      EffectBatchCompressor::CompressAll(jobs, cache_.compressionLevel_);
  // Several requests in flight; each job sets its own effect's mark.
  ParallelJobs::Run(jobs.size(), kRequestsInFlight, [&](std::size_t i) {
    if (!compressed[i].ok) return;
    effects[i]->pushed = cache_.remote_->Store(*names[i], effects[i]->permanent != 0, jobs[i].size,
                                               compressed[i].compressed.data(), compressed[i].compressed.size());
  });
}

void EffectSaver::PushOwed() noexcept {
  // Without the object's lock and the file mutex: neither the host's other
  // threads nor other processes wait on the network.
  if (!anyOwed_.load(std::memory_order_acquire)) return;
  std::vector<Owed> owed;
  {
    std::lock_guard<std::mutex> guard(owedLock_);
    owed.swap(owed_);
    anyOwed_.store(false, std::memory_order_relaxed);
  }
  for (Owed& save : owed) {
    try {
      ParallelJobs::Run(save.pushes.size(), kRequestsInFlight, [&](std::size_t i) {
        const RemotePush& push = save.pushes[i];
        save.store->Store(push.name, push.permanent, push.size, push.compressed.data(), push.compressed.size());
      });
    } catch (const std::exception&) {
      // No memory or no thread for a request: the store misses these
      // effects, as it does those of a failed PUT; the file has them.
    }
  }
}

bool EffectSaver::SaveDirectory() {
  if (!SaveIndex() || !cache_.view_.WriteHeader()) return false;
  return SaveCounts(false);
}

bool EffectSaver::SaveCounts(bool zero) {
  // A block of the statistics' tag that is not theirs is left alone, and
  // the counts with it: they never stop a save.
  cache_.CountRemoteWork();
  cache_.FoldSearchCounts();
  if (cache_.counts_.AnyCounts() || zero)
    EffectCacheStats::AddTo(*cache_.package_, cache_.counts_, CacheTimeStamp::Now(), zero);
  const ChangeMark next = cache_.knownMark_.Next();
  if (!ChangeMark::WriteLast(*cache_.package_, next) || !cache_.package_->Save()) return false;
  cache_.knownMark_ = next;
  cache_.counts_ = EffectCacheStats{};
  cache_.timeStamp_.UpdateTimeStamp();
  cache_.NoteRemoteFailure();
  return true;
}

void EffectSaver::DropDamagedEntries() {
  for (const auto& damaged : cache_.damaged_) {
    const EffectRecord* entry = cache_.fileEffects_.Find(damaged.first);
    // Another process may have stored the name afresh since: only the
    // entry that was found damaged goes, and only when its bytes, read
    // again through the view this save writes from, still fail.
    if (entry == nullptr || entry->streamId != damaged.second) continue;
    Tab<unsigned char> data;
    const EffectPayload::Result again = cache_.view_.ReadStored(*entry, data);
    if (again == EffectPayload::Result::kOk || again == EffectPayload::Result::kTrouble) continue;
    try {
      cache_.package_->RemoveStream(entry->streamId);
    } catch (const FileDataCorruptException&) {
      // A stream too damaged to remove stays, unnamed; the package is unchanged.
    }
    cache_.fileEffects_.Erase(damaged.first);
  }
  cache_.damaged_.clear();
}

void EffectSaver::BuildSnapshot() {
  if (!cache_.search_.TakeSearched()) return;
  std::shared_lock<ReaderWriterLock> shared(cache_.lock_);
  snapshot_.reset();
  const auto* paged = dynamic_cast<const PagedFilePackage*>(cache_.package_.Get());
  if (paged == nullptr || cache_.readOnly_ || cache_.staleView_ || !cache_.backgroundSaving_.load() ||
      !FilePageCache::IsJournaling()) {
    return;
  }
  // Built from a view proven the file's, as a search without the mutex is.
  const std::uint64_t known = cache_.fileLock_->LastRelease();
  if (known % 2 != 0 || cache_.fileLock_->Observe() != known) return;
  std::unique_ptr<SearchSnapshot> built =
      SearchSnapshot::Build(*paged, cache_.fileEffects_, cache_.cacheFilePath_.data(), known);
  if (cache_.fileLock_->Observe() == known) snapshot_ = std::move(built);
}

SearchSnapshot* EffectSaver::OfferSnapshot() {
  if (!snapshot_) return nullptr;
  // Searches cannot see pending effects through it, and the view must
  // still be the one it was built from: no change of this object since.
  if (!cache_.pendingEffects_.empty() || !cache_.damaged_.empty() || cache_.staleView_ || !cache_.package_ ||
      cache_.fileLock_->LastRelease() != snapshot_->Counter()) {
    snapshot_.reset();
    return nullptr;
  }
  // The batch's effects are found in the queue while it saves them; once
  // they leave it, a search must not find the older copies stored before.
  for (const auto& entry : cache_.queue_.Saving()) snapshot_->Supersede(entry.first);
  return snapshot_.get();
}

void EffectSaver::ProtectSnapshot() {
  if (!snapshot_ || !cache_.search_.IsActive()) return;
  // With the file's mutex held: no other process wrote since the snapshot,
  // and nothing of this object's waits to be written, so every change from
  // here on is journaled, and its page's image kept. Otherwise the
  // snapshot stays unprotected, and its reads decline from the save's
  // first write on.
  auto* paged = dynamic_cast<PagedFilePackage*>(cache_.package_.Get());
  FilePageCache* pages = paged != nullptr ? paged->GetPageCache() : nullptr;
  const std::uint64_t counter = cache_.fileLock_->Observe();
  if (pages != nullptr && !paged->IsModified() && pages->FileMatchesCache() && counter == snapshot_->Counter() &&
      pages->KeepSavedImages(snapshot_->Images())) {
    snapshot_->Protect(counter);
  }
}

void EffectSaver::WithdrawSnapshot() noexcept {
  if (!snapshot_) return;
  const std::vector<std::string> used = cache_.search_.Deactivate();
  snapshot_.reset();
  if (used.empty()) return;
  // The uses found through the snapshot go into the index's marks, for
  // the next save to write (marking is a search's work: the lock shared).
  std::shared_lock<ReaderWriterLock> shared(cache_.lock_);
  const CacheTimeStamp now = CacheTimeStamp::Now();
  for (const std::string& name : used) {
    const std::size_t at = cache_.fileEffects_.IndexOf(name);
    if (at != EffectTable::kNone) cache_.fileEffects_.MarkUsed(at, now);
  }
}

}  // namespace Tovrel
