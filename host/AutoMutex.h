// AutoMutex: holds a MutexObject for the lifetime of a scope.
//
// The constructor acquires the mutex with an infinite wait; the destructor
// releases it if the acquisition made the caller its owner (a normal or an
// abandoned result). The mutex must outlive the AutoMutex.
// Thread-safety: an AutoMutex belongs to the thread that made it.
#ifndef HOST_AUTOMUTEX_H
#define HOST_AUTOMUTEX_H

#include <cstdint>

#include "host/MutexObject.h"

namespace NorvaneSDK {
namespace Util {

class AutoMutex {
 public:
  explicit AutoMutex(MutexObject& mutex)
      : mutex_(mutex), result_(mutex.Acquire(MutexObject::kInfinite)) {}
  ~AutoMutex() {
    if (IsOwner()) mutex_.Release();
  }
  AutoMutex(const AutoMutex&) = delete;
  AutoMutex& operator=(const AutoMutex&) = delete;

  // What the acquisition answered (MutexObject::kWait...).
  std::uint32_t GetResult() const { return result_; }
  // True when the acquisition made the caller the owner.
  bool IsOwner() const {
    return result_ == MutexObject::kWaitObject0 || result_ == MutexObject::kWaitAbandoned;
  }

 private:
  MutexObject& mutex_;
  const std::uint32_t result_;
};

}  // namespace Util
}  // namespace NorvaneSDK

#endif
