// NamedMutex: a mutex shared by name between processes, re-entrant for the
// thread that owns it.
//
// Every NamedMutex of one name, in this process or any other, is the same
// lock. The owning thread may wait again without blocking; it must release
// once per successful wait. A process that dies while owning never leaves it
// locked: Windows reports the next wait as abandoned (the waiter owns it
// then); POSIX simply hands it on and never reports abandoned.
//
// Windows: a kernel mutex (CreateMutexW). POSIX: one in-process recursive
// lock per name, from a process-wide registry, plus an flock on a lock file
// named after the mutex in the user's own object folder (ObjectFolder: no
// other user can open it or make it first). The lock file is created once
// and never removed, so a wait locks without checking which file is linked.
//
// While a test counts them (MutexWaits), every wait is counted, under the
// mutex's name, for as long as it lasts.
//
// A name must not contain path separators. Owned by its creator; destroying
// it while a thread owns it gives the lock up (Windows: abandons it).
// Thread-safety: Wait and Release may be called from any thread; the object
// itself must outlive every call.
#ifndef TOVREL_PLATFORM_NAMEDMUTEX_H
#define TOVREL_PLATFORM_NAMEDMUTEX_H

#include <cstdint>

namespace Tovrel {

class NamedMutex {
 public:
  enum class WaitResult { kAcquired, kAbandoned, kTimedOut, kFailed };

  // Wait time meaning "for ever".
  static constexpr std::uint32_t kInfinite = 0xFFFFFFFF;

  // Opens the mutex of that name, creating it when none exists. When the
  // system refuses, IsOpen() is false and OpenError() tells why.
  explicit NamedMutex(const wchar_t* name);
  ~NamedMutex();
  NamedMutex(const NamedMutex&) = delete;
  NamedMutex& operator=(const NamedMutex&) = delete;

  bool IsOpen() const { return native_ != nullptr; }
  // The system error of a failed open; 0 when open.
  std::uint32_t OpenError() const { return openError_; }

  // Waits up to `timeoutMilliseconds` (kInfinite: for ever) to own the
  // mutex. kAcquired and kAbandoned mean the caller owns it. kFailed leaves
  // the reason in SystemError::Last().
  WaitResult Wait(std::uint32_t timeoutMilliseconds);

  // Gives up one level of ownership; false (nothing changes) when the
  // calling thread does not own the mutex.
  bool Release();

 private:
  struct Native;
  Native* native_;          // system state; null when the open failed
  std::uint32_t openError_;  // why the open failed; 0 while native_ is set
};

}  // namespace Tovrel

#endif
