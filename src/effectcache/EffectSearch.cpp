#include "effectcache/EffectSearch.h"

#include <mutex>
#include <new>
#include <shared_mutex>
#include <utility>

#include "effectcache/EffectCacheImpl.h"
#include "effectcache/ScratchPool.h"
#include "host/TabOutOfRangeException.h"
#include "package/DirectStreamReader.h"
#include "platform/LocalClock.h"

namespace Tovrel {

EffectSearch::EffectSearch(EffectCacheImpl& cache) : cache_(cache) {}

namespace {

// Buffers for a search's compressed bytes, kept between searches so that
// each one does not allocate its own.
ScratchPool<std::vector<std::uint8_t>>::Lease BorrowSearchBuffer() {
  static ScratchPool<std::vector<std::uint8_t>> pool;
  return pool.Borrow();
}

}  // namespace

bool EffectSearch::Search(const std::string& key, Tab<unsigned char>& data) {
  // Queued for the background save, or in the save under way: the newest
  // copy, found without the object's lock (the save may hold it).
  if (cache_.queue_.Find(key, data)) return true;
  const auto buffer = BorrowSearchBuffer();
  if (buffer.Get() == nullptr) throw std::bad_alloc();
  std::vector<std::uint8_t>& compressed = *buffer;
  EffectRecord record{};
  Found found = FindShared(key, data, &record, compressed);
  // Bytes that fail their checks are looked at again under the locks:
  // the view that found them may be stale, or they are damaged.
  if (found == Found::kStored && Decode(record, compressed, data) == EffectPayload::Result::kOk) return true;
  if (found == Found::kStored || found == Found::kLocked) found = FindLocked(key, data, &record, compressed, false);
  if (found == Found::kStored) {
    if (Decode(record, compressed, data) == EffectPayload::Result::kOk) return true;
    NoteDamaged(key, record);
    found = Found::kDamaged;
  }
  if (found == Found::kDamaged) {
    // Bytes that failed their checks may be another save's, read through
    // tables that a save behind the shared stamp's back made stale: when
    // the file's mark says so, the view is loaded again and read again.
    found = FindLocked(key, data, &record, compressed, true);
    if (found == Found::kStored) {
      if (Decode(record, compressed, data) == EffectPayload::Result::kOk) return true;
      NoteDamaged(key, record);
      found = Found::kDamaged;
    }
  }
  if (found == Found::kPending) return true;
  return (found == Found::kMissing || found == Found::kDamaged) && FetchFromRemote(key, data);
}

EffectSearch::Found EffectSearch::FindPending(const std::string& key, Tab<unsigned char>& data) const {
  const auto pending = cache_.pendingEffects_.find(key);
  if (pending == cache_.pendingEffects_.end() || pending->second.bytes.Count() == 0) return Found::kLocked;
  data.ZeroCount();
  data.Append(pending->second.bytes.Count(), pending->second.bytes.Addr(0));
  return Found::kPending;
}

EffectSearch::Found EffectSearch::FindShared(const std::string& key, Tab<unsigned char>& data,
                                                   EffectRecord* record, std::vector<std::uint8_t>& compressed) const {
  std::shared_lock<ReaderWriterLock> shared(cache_.lock_, std::try_to_lock);
  if (!shared.owns_lock()) {
    // Held (or wanted) by a change, the background save's among them.
    if (FindInSnapshot(key, record, compressed) == Found::kStored) return Found::kStored;
    shared.lock();
  }
  if (FindPending(key, data) == Found::kPending) return Found::kPending;
  const auto* paged = dynamic_cast<const PagedFilePackage*>(cache_.package_.Get());
  if (paged == nullptr || cache_.staleView_) return Found::kLocked;
  // The view is the file's when no process held the file's lock since
  // this object let it go with the view current: the save counter proves
  // it, read before and after the bytes.
  const std::uint64_t known = cache_.fileLock_->LastRelease();
  if (known % 2 != 0 || cache_.fileLock_->Observe() != known) return Found::kLocked;
  const std::size_t at = cache_.fileEffects_.IndexOf(key);
  if (at != EffectTable::kNone) {
    const EffectRecord& found = cache_.fileEffects_.At(at).record;
    try {
      const DirectStreamReader::Result read =
          DirectStreamReader::Read(*paged, found.streamId, 8 + EffectPayload::CompressedSizeLimit(), compressed);
      if (read != DirectStreamReader::Result::kOk) return Found::kLocked;
    } catch (const std::bad_alloc&) {
      throw;
    } catch (const std::exception&) {
      return Found::kLocked;  // a failed read: the locked path tells trouble from damage
    }
    *record = found;
  }
  // The reads are system calls that have completed by now: a holder whose
  // writes they may have seen made the counter odd before its first one.
  if (cache_.fileLock_->Observe() != known) return Found::kLocked;
  if (at == EffectTable::kNone) return Found::kMissing;
  if (EffectPayload::CheckBlock(*record, compressed) != EffectPayload::Result::kOk) return Found::kLocked;
  cache_.fileEffects_.MarkUsed(at, CacheTimeStamp::Now());
  NoteSearched();
  return Found::kStored;
}

EffectSearch::Found EffectSearch::FindInSnapshot(const std::string& key, EffectRecord* record,
                                                 std::vector<std::uint8_t>& compressed) const {
  if (!snapshotOn_.load(std::memory_order_acquire) && !offerComing_.load(std::memory_order_acquire)) {
    return Found::kLocked;
  }
  std::shared_lock<ReaderWriterLock> shared(snapshotLock_);
  if (active_ == nullptr) return Found::kLocked;
  try {
    if (active_->Read(key, *cache_.fileLock_, compressed, record) != SearchSnapshot::Result::kOk) return Found::kLocked;
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception&) {
    return Found::kLocked;
  }
  if (EffectPayload::CheckBlock(*record, compressed) != EffectPayload::Result::kOk) return Found::kLocked;
  NoteSearched();
  return Found::kStored;
}

void EffectSearch::BeginOffer() {
  offerComing_.store(true, std::memory_order_release);
  snapshotLock_.lock();
}

void EffectSearch::EndOffer(SearchSnapshot* snapshot) {
  active_ = snapshot;
  snapshotOn_.store(snapshot != nullptr, std::memory_order_release);
  snapshotLock_.unlock();
  offerComing_.store(false, std::memory_order_release);
}

std::vector<std::string> EffectSearch::Deactivate() noexcept {
  SearchSnapshot* was = nullptr;
  {
    std::lock_guard<ReaderWriterLock> guard(snapshotLock_);
    snapshotOn_.store(false, std::memory_order_release);
    was = active_;
    active_ = nullptr;
  }
  if (was == nullptr) return {};
  try {
    return was->UsedNames();
  } catch (const std::bad_alloc&) {
    return {};  // the uses of this save's searches are not marked
  }
}

EffectSearch::Found EffectSearch::FindLocked(const std::string& key, Tab<unsigned char>& data,
                                                   EffectRecord* record, std::vector<std::uint8_t>& compressed,
                                                   bool again) {
  std::lock_guard<ReaderWriterLock> guard(cache_.lock_);
  cache_.CheckInvariants();
  if (FindPending(key, data) == Found::kPending) return Found::kPending;
  if (!cache_.view_.EnsureOpen()) return Found::kFailed;
  // Taken to read: other processes' searches go on without the lock
  // unless this one has to write (a reload that rolls a journal back).
  CacheFileLock::Hold hold(*cache_.fileLock_, CacheFileLock::Intent::kRead);
  if (!hold.IsOwner()) return Found::kFailed;
  try {
    if (again) {
      if (cache_.damaged_.count(key) == 0 || cache_.view_.FileMarkIsKnown()) return Found::kMissing;
      cache_.staleView_ = true;
      cache_.damaged_.erase(key);
    }
    // A view that could not be brought up to date is not searched: its
    // tables may name pages that another process has since reused.
    if (!cache_.view_.RefreshIfChanged() || !cache_.package_) return Found::kMissing;
    const std::size_t at = cache_.fileEffects_.IndexOf(key);
    if (at == EffectTable::kNone) return Found::kMissing;
    const EffectRecord& found = cache_.fileEffects_.At(at).record;
    const EffectPayload::Result read = cache_.view_.ReadStoredBytes(found, compressed);
    if (read != EffectPayload::Result::kOk) {
      // Bytes that failed their checks: the next save looks at them again
      // and drops the entry if they still do. A read that met a failed
      // file call proves nothing of them: only a miss.
      if (read != EffectPayload::Result::kTrouble) cache_.damaged_[key] = found.streamId;
      return Found::kDamaged;
    }
    *record = found;
    cache_.fileEffects_.MarkUsed(at, CacheTimeStamp::Now());
    return Found::kStored;
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const NorvaneSDK::Util::TabOutOfRangeException&) {
    throw;
  } catch (const std::exception&) {
    return Found::kFailed;  // a damaged file: the search misses
  }
}

EffectPayload::Result EffectSearch::Decode(const EffectRecord& record, const std::vector<std::uint8_t>& compressed,
                                              Tab<unsigned char>& data) {
  const std::uint32_t start = LocalClock::TickCount();
  const EffectPayload::Result result = EffectPayload::DecompressBlock(record, compressed, data);
  if (result == EffectPayload::Result::kOk) {
    cache_.decodeMilliseconds_.fetch_add(LocalClock::TickCount() - start, std::memory_order_relaxed);
  }
  return result;
}

void EffectSearch::NoteDamaged(const std::string& key, const EffectRecord& record) {
  std::lock_guard<ReaderWriterLock> guard(cache_.lock_);
  const EffectRecord* entry = cache_.fileEffects_.Find(key);
  if (entry != nullptr && entry->streamId == record.streamId) cache_.damaged_[key] = record.streamId;
}

bool EffectSearch::FetchFromRemote(const std::string& key, Tab<unsigned char>& data) {
  // The request runs without any lock: other threads go on meanwhile.
  std::shared_ptr<EffectRemoteStore> remote;
  {
    std::shared_lock<ReaderWriterLock> shared(cache_.lock_);
    remote = cache_.remote_;
  }
  if (!remote) return false;
  bool permanent = false;
  std::vector<std::uint8_t> compressed;
  if (!remote->Fetch(key, data, &permanent, &compressed)) return false;
  // The next save keeps it in the file, as if the host had cached it, with
  // the compressed bytes it came in (checked to decompress to `data`). It
  // counts against the limits as a cached effect does: a read-only file
  // keeps no more than its size limit (the effect is served, not kept),
  // and a writable one saves when 2 MiB are waiting.
  bool saveInBackground = false;
  {
    std::lock_guard<ReaderWriterLock> guard(cache_.lock_);
    if (!cache_.package_) return true;
    const std::uint64_t adds =
        EffectRecord::kSize + (8 + key.size()) + (8 + static_cast<std::uint64_t>(data.Count()));
    if (cache_.readOnly_ && cache_.pendingBytes_ + adds > cache_.cacheBytesLimit_) return true;
    Tab<unsigned char> bytes(data);
    PendingEffect& effect = cache_.pendingEffects_[key];
    effect.bytes = std::move(bytes);
    effect.permanent = permanent ? 1 : 0;
    effect.fromRemote = true;
    effect.pushed = false;
    effect.compressed.swap(compressed);
    effect.compressMilliseconds = 0;
    cache_.pendingBytes_ += adds;
    if (!cache_.readOnly_ && cache_.pendingBytes_ >= EffectCacheImpl::kAutoSaveThreshold) {
      saveInBackground = cache_.backgroundSaving_.load();
      if (!saveInBackground) cache_.saver_.SaveToFile();
    }
  }
  cache_.saver_.PushOwed();
  // Asked without the lock: with no thread to be had, the save runs here.
  if (saveInBackground) cache_.worker_.Request();
  return true;
}

}  // namespace Tovrel
