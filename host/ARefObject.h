// ARefObject: base of every reference-counted object of the library.
//
// Ownership: an object starts with a count of 0 and is held through RefPtr
// (or explicit AddRef/Release pairs). The last Release calls DeleteThis,
// which deletes the object; the destructor is protected, so an ARefObject is
// never deleted directly or created on the stack. Memory comes from the
// graphics heap operators and is zero-filled before construction.
//
// The five virtual operations come first in every derived class's virtual
// table, in this order: destructor, AddRef, Release, QueryInterface,
// DeleteThis.
//
// Thread-safety: AddRef and Release may be called from any thread (the
// count is atomic); everything else is the derived class's business.
#ifndef HOST_AREFOBJECT_H
#define HOST_AREFOBJECT_H

#include <atomic>
#include <cstdint>

#include "host/GraphicsHeapOperators.h"

namespace NorvaneGraphics {

class ARefObject : public GraphicsHeapOperators {
 protected:
  virtual ~ARefObject() = default;

 public:
  ARefObject() : refCount_(0) {}
  ARefObject(const ARefObject&) = delete;
  ARefObject& operator=(const ARefObject&) = delete;

  // Adds a reference; returns the new count.
  virtual long AddRef() { return refCount_.fetch_add(1, std::memory_order_relaxed) + 1; }

  // Drops a reference; the last one deletes the object. Returns the new count.
  virtual long Release() {
    const long left = refCount_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left == 0) DeleteThis();
    return left;
  }

  // Asks for another interface of the object by identifier. The library's
  // objects offer none beyond their class, so the base answers null.
  virtual void* QueryInterface(std::uint64_t /*interfaceId*/) { return nullptr; }

  // Destroys the object; called by the last Release.
  virtual void DeleteThis() { delete this; }

  long GetRefCount() const { return refCount_.load(std::memory_order_relaxed); }

 private:
  std::atomic<long> refCount_;  // references held; never negative
};

}  // namespace NorvaneGraphics

#endif
