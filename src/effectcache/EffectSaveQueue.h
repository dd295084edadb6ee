// EffectSaveQueue: the effects a cache with background saving on holds
// for its worker: those waiting (cached since the worker last took them)
// and those of the save under way, each a PendingMap.
//
// CacheCompiledEffect adds to the waiting effects under this queue's own
// small lock, never the cache's lock, so that a host's call never waits
// for a save's writes and syncs; the worker takes them all at the start
// of a save (they become the save's) and lets them go when the save has
// ended, with the cache's lock held, at the moment the cache's index or
// pending map gains them. Until then a search finds them here. Memory is
// bounded: an add that brings the two past the bound waits, in
// WaitUnderBound, until the save under way has ended.
//
// Owned by EffectCacheImpl. Thread-safety: every member may be called
// from any thread, but Take, Saving, Finish and GiveBack only from the one
// that saves (the worker), which alone changes the save's effects: it
// reads them (Saving) without the queue's lock.
#ifndef TOVREL_EFFECTCACHE_EFFECTSAVEQUEUE_H
#define TOVREL_EFFECTCACHE_EFFECTSAVEQUEUE_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

#include "effectcache/PendingEffect.h"
#include "host/Tab.h"

namespace Tovrel {

class EffectSaveQueue {
 public:
  EffectSaveQueue() = default;
  EffectSaveQueue(const EffectSaveQueue&) = delete;
  EffectSaveQueue& operator=(const EffectSaveQueue&) = delete;

  // Adds (or replaces) a waiting effect that adds `bytes` to the file;
  // true when the waiting effects reach `threshold` bytes.
  bool Add(const std::string& name, PendingEffect&& effect, std::uint64_t bytes, std::uint64_t threshold);
  // Copies the named effect, waiting or being saved (the waiting copy is
  // the newer), into `data`; false when neither holds it.
  bool Find(const std::string& name, Tab<unsigned char>& data) const;
  // Returns when the waiting effects and those being saved hold at most
  // `bound` bytes, or no save is under way to bring them down; true when
  // it waited.
  bool WaitUnderBound(std::uint64_t bound);

  // The worker: waiting effects become the save's, in name order, until
  // they add at least `bytes` (all of them with no limit). True when any
  // were taken.
  bool Take(std::uint64_t bytes = ~std::uint64_t{0});
  // The worker: what the save's effects add to the file.
  std::uint64_t SavingBytes() const;
  // The worker: the save's effects (stable until Finish or GiveBack).
  const PendingMap& Saving() const { return saving_; }
  // The worker, with the cache's lock held: the save has ended and its
  // effects are where the cache keeps them now. Those that `pending` holds
  // without their bytes (a save that did not complete keeps them pending)
  // get the queue's bytes, moved, in the same step, so that no search
  // finds an effect in neither place.
  void FinishInto(PendingMap& pending);
  // The worker, with the cache's lock held, before GiveBack: effects of
  // the save that `pending` holds without their bytes get a copy.
  void CopyBytesInto(PendingMap& pending) const;
  // The worker: the save could not take its effects; they wait again
  // (behind any newer copy of the same name). Allocates nothing.
  void GiveBack();

  // Moves the waiting effects into `pending` (a waiting copy wins), adding
  // their bytes to `*pendingBytes`. Allocates nothing.
  void MoveWaitingInto(PendingMap& pending, std::uint64_t* pendingBytes);
  // The names waiting or being saved that `pending` does not hold.
  std::size_t CountBeside(const PendingMap& pending) const;
  // Bytes waiting and being saved.
  std::uint64_t Bytes() const;
  // Calls of Add since the last call of this.
  std::uint64_t TakeAdded() { return added_.exchange(0, std::memory_order_relaxed); }
  // Adds that waited for the bound, ever.
  std::uint64_t BoundWaits() const { return boundWaits_.load(std::memory_order_relaxed); }

 private:
  static bool CopyFrom(const PendingMap& effects, const std::string& name, Tab<unsigned char>& data);
  // Under lock_: gives the bytes of `saving`'s effects (moved or copied by
  // `give(from, to)`) to those that `pending` holds with their size only.
  template <typename Effects, typename Give>
  static void GiveBytesTo(Effects& saving, PendingMap& pending, Give give);
  void CountHeld();

  mutable std::mutex lock_;  // over every field below but the atomics
  std::condition_variable finished_;
  PendingMap waiting_;
  // The save under way's; empty between saves. Changed only by the worker
  // (under lock_), so the worker reads it without lock_.
  PendingMap saving_;
  std::uint64_t waitingBytes_ = 0;
  std::uint64_t savingBytes_ = 0;
  bool saveUnderWay_ = false;
  // waiting_.size() + saving_.size(): a search looks here only when it is
  // not zero, without the lock.
  std::atomic<std::size_t> held_{0};
  std::atomic<std::uint64_t> added_{0};
  std::atomic<std::uint64_t> boundWaits_{0};
};

}  // namespace Tovrel

#endif
