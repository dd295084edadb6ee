// MutexObject: the host SDK's named mutex, shared between processes.
//
// Every MutexObject of one name, in any process, is the same lock. The
// owning thread may acquire it again without blocking and releases it once
// per successful Acquire. Acquire answers with the Windows wait results; a
// process that dies while holding the lock never leaves it held (Windows
// answers the next Acquire with kWaitAbandoned, and the caller then owns it;
// other systems just hand it on with kWaitObject0).
//
// Owned by whoever creates it (the library does so on the host heap);
// destroying it while a thread holds it gives the lock up. Thread-safety:
// Acquire and Release may be called from any thread.
#ifndef HOST_MUTEXOBJECT_H
#define HOST_MUTEXOBJECT_H

#include <cstdint>

#include "host/NorvaneHeapOperators.h"

namespace Tovrel {
class NamedMutex;
}

namespace NorvaneSDK {
namespace Util {

class MutexObject : public NorvaneHeapOperators {
 public:
  // Wait without a time limit.
  static constexpr std::uint32_t kInfinite = 0xFFFFFFFF;
  // Acquire's results, with the values of the Windows wait functions.
  static constexpr std::uint32_t kWaitObject0 = 0;
  static constexpr std::uint32_t kWaitAbandoned = 0x80;
  static constexpr std::uint32_t kWaitTimeout = 0x102;
  static constexpr std::uint32_t kWaitFailed = 0xFFFFFFFF;

  // Opens the mutex `name`, creating it when none exists. If the system
  // refuses, IsValid() is false and every Acquire fails.
  explicit MutexObject(const wchar_t* name);
  ~MutexObject();
  MutexObject(const MutexObject&) = delete;
  MutexObject& operator=(const MutexObject&) = delete;

  bool IsValid() const;
  // The system error (GetLastError / errno) of a refused creation; 0 if valid.
  std::uint32_t GetCreationError() const;

  // Waits up to `timeoutMilliseconds` (kInfinite: for ever). kWaitObject0 or
  // kWaitAbandoned: the caller owns the mutex; kWaitTimeout; kWaitFailed,
  // with the reason left as the thread's last system error.
  std::uint32_t Acquire(std::uint32_t timeoutMilliseconds);

  // Gives up one acquisition; false when the calling thread does not own it.
  bool Release();

 private:
  Tovrel::NamedMutex* mutex_;  // the system's mutex; owned, never null
};

}  // namespace Util
}  // namespace NorvaneSDK

#endif
