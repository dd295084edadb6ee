// EffectSaver: how one effect cache object saves, in a room of its own:
// the pending effects compressed and written as streams, the index, the
// header block and the statistics after them, the change mark last, then
// the package's save (its journal and syncs) under the file's lock; what
// a save compressed goes to the remote store once it completed, without
// the object's lock (PushOwed).
//
// Nothing is written from a view that is not the file's (EffectFileView
// brings it up to date first); a save that fails abandons the package's
// unsaved changes, so that no later save or end writes them.
//
// Part of EffectCacheImpl (a friend of it, made and owned by it, living as
// long as it), whose fields it reads and changes. Thread-safety: every
// call is made with the object's lock held exclusively (see
// EffectCacheImpl), except PushOwed, which is called without it.
#ifndef TOVREL_EFFECTCACHE_EFFECTSAVER_H
#define TOVREL_EFFECTCACHE_EFFECTSAVER_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "effectcache/EffectBatchCompressor.h"
#include "effectcache/EffectTable.h"
#include "effectcache/SearchSnapshot.h"
#include "host/MutexObject.h"

namespace Tovrel {

class EffectCacheImpl;
class EffectRemoteStore;

class EffectSaver {
 public:
  explicit EffectSaver(EffectCacheImpl& cache) : cache_(cache) {}
  EffectSaver(const EffectSaver&) = delete;
  EffectSaver& operator=(const EffectSaver&) = delete;

  // Saves the pending effects (a read-only file: PUTs them to the remote
  // store instead); false when the save failed. What the save wrote is
  // owed to the remote store: the caller calls PushOwed once it has let
  // the object's lock go.
  bool SaveToFile();
  // PUTs what completed saves owe the remote store, without the object's
  // lock (nor the file's mutex), so that no search or count of the host's
  // other threads waits for the network; returns once they are done.
  // Any thread; saves of several threads may push at once.
  void PushOwed() noexcept;
  // The worker's job (see EffectSaveWorker): saves what was queued when it
  // began, in batches of about 2 MiB (SaveBatch). Never throws: a save
  // that failed leaves the cache unusable, as a failed save does on the
  // host's thread.
  void SaveInBackground() noexcept;
  // The index, the header block, the statistics and the change mark, then
  // the package's save.
  bool SaveDirectory();
  // Adds the counts to the file's statistics block (zeroes it first with
  // `zero`), writes the next change mark and saves the package.
  bool SaveCounts(bool zero);
  // An effect's stream: its compressed bytes as a length-prefixed block.
  bool WriteEffectStream(const std::uint8_t* compressed, std::uint64_t size, std::uint64_t* id);

 private:
  // PUTs of a save's effects kept in flight at once, each on a thread of
  // its own (ParallelJobs), none of them holding the file's mutex.
  static constexpr unsigned kRequestsInFlight = 8;

  // An effect a save compressed, to be PUT once the save completed.
  struct RemotePush {
    std::string name;
    bool permanent;
    std::uint64_t size;
    std::vector<std::uint8_t> compressed;
  };

  bool SaveToFileUnderMutex();
  // Compresses the batch taken from the queue without any lock, then,
  // with the object's lock, makes it pending (its compressed bytes with
  // it) and saves as SaveToFile does; false when the cache is unusable
  // afterwards.
  bool SaveBatch() noexcept;
  // Makes the queued effects of the save under way pending ones, with the
  // compressed bytes made for them.
  void AdoptSaving(std::vector<EffectBatchCompressor::Result>& compressed);
  // The worker: returns once no other process holds the file's mutex.
  void WaitForOtherHolders();
  bool SaveIndex();
  bool WritePendingEffects();
  std::vector<EffectBatchCompressor::Result> CompressPending();
  // Writes one pending effect (`size` bytes before compression) as a new
  // stream, replacing the stream of the name's stored copy.
  bool WritePendingEffect(const std::string& name, std::uint64_t size, std::uint32_t permanent,
                          const EffectBatchCompressor::Result& compressed, std::vector<EffectTable::Change>& changes);
  void CollectRemotePushes(std::vector<EffectBatchCompressor::Result>& compressed);
  // What one save owes, and the store it was saved for (a store set later
  // gets nothing of it).
  struct Owed {
    std::shared_ptr<EffectRemoteStore> store;
    std::vector<RemotePush> pushes;
  };
  void PushPendingToRemote();
  void DropDamagedEntries();
  // The snapshot of the stored effects that searches read while the
  // worker's save holds the object's lock (see SearchSnapshot): built
  // before a batch takes the lock, with the lock shared, when searches
  // found stored effects since the last one; offered to the searches as
  // the batch takes the lock, protected before its first write, withdrawn
  // (and dropped) once the batch has let the lock go.
  void BuildSnapshot();
  // The snapshot to offer at a batch's start, with the object's lock held
  // exclusively; null (and none kept) when it is not the file's any more.
  SearchSnapshot* OfferSnapshot();
  void ProtectSnapshot();
  // Without the object's lock (which it takes shared to mark uses).
  void WithdrawSnapshot() noexcept;
  // Withdraws the snapshot when the batch's save ends, however it ends,
  // after the object's lock is let go.
  struct SnapshotOffer {
    EffectSaver& saver;
    ~SnapshotOffer() { saver.WithdrawSnapshot(); }
  };

  EffectCacheImpl& cache_;
  // What the save under way compressed, for the remote store once it
  // completed; empty otherwise.
  std::vector<RemotePush> remotePushes_;
  // Saves' pushes not yet made, in the order the saves completed; guarded
  // by owedLock_ (never held while pushing).
  std::mutex owedLock_;
  std::vector<Owed> owed_;
  // Set with owedLock_ held while owed_ holds anything, so that PushOwed,
  // called after every CacheCompiledEffect, takes no lock when nothing is owed.
  std::atomic<bool> anyOwed_{false};
  // Used by the save path only (one batch at a time).
  std::unique_ptr<SearchSnapshot> snapshot_;
  // The file's mutex as the worker waits for other holders (made at its
  // first wait; used on the worker's thread only).
  std::unique_ptr<NorvaneSDK::Util::MutexObject> otherHolders_;
};

}  // namespace Tovrel

#endif
