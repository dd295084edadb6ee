// MultiProcessMemory: a small block of memory shared by name between
// processes, guarded by a named mutex.
//
// Initialize(name, bytes) takes the mutex named name + "_mutex", then opens
// the block `name`, or creates it when no process holds it, and runs a hook
// with the mutex still held: OnMemoryCreated in the one process that created
// this life of the block, OnMemoryAttached in every later one. After the
// last holder has closed it, the next Initialize anywhere creates it afresh.
// Any access to the block belongs between Lock and Unlock.
//
// GetBytes stays 0 after Initialize: the requested size is not recorded.
//
// Ownership: not reference counted; allocated on the host heap (zero-filled)
// and owned plainly. The object owns its mutex and its handle and view of
// the block; a second Initialize and the destructor give them up, the
// destructor waiting for the mutex to do so.
// Thread-safety: Lock and Unlock may be called from any thread (the mutex
// is re-entrant for its owner); Initialize and destruction must not overlap
// any other call.
#ifndef TOVREL_MULTIPROCESSMEMORY_H
#define TOVREL_MULTIPROCESSMEMORY_H

#include <cstddef>
#include <cstdint>

#include "host/GraphicsHeapOperators.h"
#include "tovrel/export.h"

namespace NorvaneSDK {
namespace Util {
class MutexObject;
}
}  // namespace NorvaneSDK

namespace Tovrel {

class TOVREL_API MultiProcessMemory : public NorvaneGraphics::GraphicsHeapOperators {
 public:
  // Lock's wait without a time limit.
  static constexpr std::uint32_t kInfinite = 0xFFFFFFFF;

  MultiProcessMemory();
  virtual ~MultiProcessMemory();
  MultiProcessMemory(const MultiProcessMemory&) = delete;
  MultiProcessMemory& operator=(const MultiProcessMemory&) = delete;

  // Waits for the mutex and returns the block's address. Null before
  // Initialize, and when the wait reports an abandoned mutex (the caller
  // then owns it all the same). Any other result, a time-out included,
  // returns the address. Pair every call with Unlock.
  void* Lock(std::uint32_t timeoutMilliseconds);
  // Releases the mutex once; nothing before Initialize.
  void Unlock();
  // Always 0 (see above).
  std::size_t GetBytes() const;

 protected:
  // Opens or creates the block of `bytes` bytes (at most 4 GiB - 1 when it is
  // created) and runs the matching hook. Gives up any earlier block first.
  // True on success; false only for a null name. Throws
  // OutOfMemoryException when the mutex object cannot be allocated and
  // Win32APICallFailedException (with the system error) when the mutex
  // cannot be made or taken, reports an abandoned owner, or the block
  // cannot be opened, created or mapped; the mutex is released then, and
  // whatever was set up stays until the next Initialize or the destructor.
  bool Initialize(const wchar_t* name, std::size_t bytes);

  // Called under the mutex with the new block, zero-filled. Does nothing here.
  virtual void OnMemoryCreated(void* memory);
  // Called under the mutex with a block that another holder created. Does
  // nothing here.
  virtual void OnMemoryAttached(void* memory);

 private:
  void CloseMapping();
  void CloseBlock();
  void AssertValid() const;

  // All four are zero after construction and after CloseMapping.
  // Invariants: view_ set only with mapping_; mapping_ set only with mutex_.
  NorvaneSDK::Util::MutexObject* mutex_;  // owned; named after the block + "_mutex"
  std::size_t bytes_;                     // never set: GetBytes answers 0
  void* mapping_;                         // handle of the block
  void* view_;                            // the block, mapped into this process
};

}  // namespace Tovrel

#endif
