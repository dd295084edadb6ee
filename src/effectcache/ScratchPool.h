// ScratchPool: objects kept for reuse by whichever thread needs one next,
// such as a search's buffer or a decompressor, so that a search neither
// allocates its working memory each time nor keeps it per thread.
//
// Per-thread objects (thread_local with a destructor) are not used for
// this: a host's threads end whenever the host likes, and with Windows'
// emulated thread-local storage the storage of a thread's variables can be
// freed before their destructors run, so a destructor at thread exit
// would read freed memory inside the host's process.
//
// A Lease owns one object while it lives and gives it back when it ends;
// the pool keeps up to kSlots idle objects (any more are deleted) and
// deletes those it holds when it is destroyed. Objects are made with their
// default constructor when no idle one is there.
//
// Thread-safety: Borrow and a Lease's end may run on any threads at once;
// each slot is one atomic pointer, looked at first, then taken by exchange
// or filled by compare-exchange, so no thread waits for another. An object is used by
// the thread holding its lease only.
#ifndef TOVREL_EFFECTCACHE_SCRATCHPOOL_H
#define TOVREL_EFFECTCACHE_SCRATCHPOOL_H

#include <atomic>
#include <cstddef>
#include <new>

namespace Tovrel {

template <class Object>
class ScratchPool {
 public:
  // Idle objects kept at most: more than the threads that decode at once
  // on the machines hosts run on, few enough to bound the memory kept.
  static constexpr std::size_t kSlots = 16;

  class Lease {
   public:
    Lease(ScratchPool& pool, Object* object) : pool_(&pool), object_(object) {}
    Lease(Lease&& other) noexcept : pool_(other.pool_), object_(other.object_) { other.object_ = nullptr; }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    Lease& operator=(Lease&&) = delete;
    ~Lease() {
      if (object_ != nullptr) pool_->GiveBack(object_);
    }
    // Null only when no object could be made (no memory).
    Object* Get() const { return object_; }
    Object* operator->() const { return object_; }
    Object& operator*() const { return *object_; }

   private:
    ScratchPool* pool_;
    Object* object_;
  };

  ScratchPool() = default;
  ScratchPool(const ScratchPool&) = delete;
  ScratchPool& operator=(const ScratchPool&) = delete;
  ~ScratchPool() {
    for (Slot& slot : slots_) delete slot.object.exchange(nullptr, std::memory_order_acquire);
  }

  // An idle object, or a new one; a lease of null when none can be made.
  Lease Borrow() {
    for (Slot& slot : slots_) {
      // Looked at before it is taken: an exchange writes the slot's line
      // even when the slot is empty, and the threads would pass it around.
      if (slot.object.load(std::memory_order_relaxed) == nullptr) continue;
      Object* object = slot.object.exchange(nullptr, std::memory_order_acquire);
      if (object != nullptr) return Lease(*this, object);
    }
    return Lease(*this, new (std::nothrow) Object());
  }

  // Idle objects held now (for tests).
  std::size_t Idle() const {
    std::size_t idle = 0;
    for (const Slot& slot : slots_) idle += slot.object.load(std::memory_order_relaxed) != nullptr ? 1 : 0;
    return idle;
  }

 private:
  void GiveBack(Object* object) {
    for (Slot& slot : slots_) {
      Object* empty = nullptr;
      if (slot.object.load(std::memory_order_relaxed) != nullptr) continue;
      if (slot.object.compare_exchange_strong(empty, object, std::memory_order_release, std::memory_order_relaxed)) {
        return;
      }
    }
    delete object;
  }

  // One cache line each, so that threads taking and giving back different
  // slots do not share one.
  struct alignas(64) Slot {
    std::atomic<Object*> object{nullptr};
  };
  Slot slots_[kSlots];
};

}  // namespace Tovrel

#endif
