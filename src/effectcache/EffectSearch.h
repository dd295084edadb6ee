// EffectSearch: the search path of one effect cache object, in a room of
// its own: what a search reads, under which lock, and what it leaves for
// the object's changes to fold in.
//
// A search looks in the object's pending map, then in its index; it takes
// the object's lock shared and reads a stored effect's compressed bytes
// straight from the file (DirectStreamReader) without the named mutex
// while the file's save counter proves the view current (see
// CacheFileLock); otherwise it takes the object's lock alone and the named
// mutex (a hold taken to read) and reads through the package. It decodes
// outside every lock. Bytes that fail their checks send it to the locked
// path, then, when the file's change mark says the view was stale, to a
// reload; a name the file does not hold goes to the remote store, if any,
// without any lock, and what the store gives joins the pending map.
//
// While the background save holds the object's lock, a search does not
// wait for it when the worker offered a snapshot of the stored effects
// (see SearchSnapshot): it reads the effect's bytes through the snapshot,
// under a lock of its own that the worker takes only to offer, protect
// and withdraw it, and decodes them as usual. A name the snapshot does not
// hold, or a read it cannot prove, waits for the object's lock.
//
// Part of EffectCacheImpl (a friend of it, made and owned by it, living as
// long as it), whose fields it reads and, under its lock, changes.
// Thread-safety: any number of threads may search at once (see
// EffectCacheImpl for the locks).
#ifndef TOVREL_EFFECTCACHE_EFFECTSEARCH_H
#define TOVREL_EFFECTCACHE_EFFECTSEARCH_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "effectcache/EffectPayload.h"
#include "effectcache/EffectRecord.h"
#include "effectcache/SearchSnapshot.h"
#include "host/Tab.h"
#include "platform/ReaderWriterLock.h"

namespace Tovrel {

class EffectCacheImpl;

class EffectSearch {
 public:
  explicit EffectSearch(EffectCacheImpl& cache);
  EffectSearch(const EffectSearch&) = delete;
  EffectSearch& operator=(const EffectSearch&) = delete;

  // The effect named by `key` (UTF-8) into `data`; false for a miss.
  bool Search(const std::string& key, Tab<unsigned char>& data);

  // The worker's offer of a snapshot (owned by the worker, which keeps it
  // until Deactivate): BeginOffer before it takes the object's lock, so
  // that searches that find the lock taken wait for the offer rather than
  // for the save, then EndOffer with the snapshot (or null, when it is no
  // longer the file's), with the object's lock held exclusively.
  void BeginOffer();
  void EndOffer(SearchSnapshot* snapshot);
  bool IsActive() const { return snapshotOn_.load(std::memory_order_acquire); }
  // Withdraws the snapshot, once no search reads it; the names searches
  // found in it (empty when none was offered, or without memory).
  std::vector<std::string> Deactivate() noexcept;
  // True when a search found a stored effect since the last call.
  bool TakeSearched() { return searched_.exchange(false, std::memory_order_relaxed); }

 private:
  // What a search found, and where.
  enum class Found {
    kPending,  // in the pending map: copied into the caller's Tab
    kStored,   // in the index: its record and compressed bytes are in hand
    kMissing,  // in neither (of a view proven current)
    kDamaged,  // in the index, but its bytes failed their checks
    kFailed,   // the cache is unusable, the mutex cannot be had, or the file is damaged
    kLocked,   // not known without the locks: ask under them
  };

  Found FindShared(const std::string& key, Tab<unsigned char>& data, EffectRecord* record,
                   std::vector<std::uint8_t>& compressed) const;
  Found FindLocked(const std::string& key, Tab<unsigned char>& data, EffectRecord* record,
                   std::vector<std::uint8_t>& compressed, bool again);
  Found FindPending(const std::string& key, Tab<unsigned char>& data) const;
  // The bytes of a stored effect through the snapshot on offer: kStored,
  // or kLocked when there is none, it holds no such name or cannot prove
  // its read.
  Found FindInSnapshot(const std::string& key, EffectRecord* record, std::vector<std::uint8_t>& compressed) const;
  void NoteSearched() const {
    if (!searched_.load(std::memory_order_relaxed)) searched_.store(true, std::memory_order_relaxed);
  }
  // Decompresses found bytes (a length-prefixed block) into `data`,
  // without any lock, and times it for the profile.
  EffectPayload::Result Decode(const EffectRecord& record, const std::vector<std::uint8_t>& compressed,
                               Tab<unsigned char>& data);
  // Notes an entry whose bytes failed their checks (if the index still
  // names that stream), under the object's lock.
  void NoteDamaged(const std::string& key, const EffectRecord& record);
  bool FetchFromRemote(const std::string& key, Tab<unsigned char>& data);

  EffectCacheImpl& cache_;
  // Guards active_: shared by searches reading through it, exclusive to
  // offer and withdraw it. Taken before the object's lock, never after it.
  mutable ReaderWriterLock snapshotLock_;
  SearchSnapshot* active_ = nullptr;
  // Mirrors "active_ is set", so that searches take snapshotLock_ only then.
  std::atomic<bool> snapshotOn_{false};
  // Set from BeginOffer to EndOffer (snapshotLock_ held exclusively then).
  std::atomic<bool> offerComing_{false};
  mutable std::atomic<bool> searched_{false};
};

}  // namespace Tovrel

#endif
