// SaveCounter: a counter shared by name between processes that tells
// readers whether anyone held a file's lock while they read it.
//
// The block holds one 64-bit counter, zero when the block is made. A
// holder of the lock that guards the file makes the counter odd (and new)
// when it takes the lock, before its first write, and even (and new) when
// it lets the lock go, after its last. A reader that does not take the
// lock reads the counter before and after its reads: when both are the
// same even value that it saw the last time it held the lock itself, no
// one held the lock meanwhile, so the file and its tables are still what
// it knew. A holder that dies with the lock leaves the counter odd; the
// next holder moves it on, so readers take the lock until then.
//
// The counter is read and written without the block's own mutex: it is a
// lock-free atomic in the shared block. Initialize runs under the block's
// mutex, as MultiProcessMemory does. Owned plainly by its user.
// Thread-safety: Load from any thread; Begin and End only by the holder of
// the file's lock; Initialize must not overlap any other call.
#ifndef TOVREL_SHARED_SAVECOUNTER_H
#define TOVREL_SHARED_SAVECOUNTER_H

#include <atomic>
#include <cstdint>

#include "tovrel/MultiProcessMemory.h"

namespace Tovrel {

class SaveCounter : public MultiProcessMemory {
 public:
  static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "the shared counter needs no lock");

  SaveCounter();
  ~SaveCounter() override;

  // Opens or makes the block `name`; true when the counter can be used.
  // Exceptions of MultiProcessMemory::Initialize are answered false.
  bool Initialize(const wchar_t* name);
  bool IsReady() const { return counter_ != nullptr; }

  // The counter now; 1 (odd: no reader trusts it) before Initialize.
  std::uint64_t Load() const;
  // Makes the counter odd and new; returns it.
  std::uint64_t Begin();
  // Makes the counter even and new; returns it.
  std::uint64_t End();

 private:
  // In the shared block; null until Initialize succeeded.
  std::atomic<std::uint64_t>* counter_;
};

}  // namespace Tovrel

#endif
