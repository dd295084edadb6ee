#include "host/MutexObject.h"

#include "platform/NamedMutex.h"

namespace NorvaneSDK {
namespace Util {

using Tovrel::NamedMutex;

MutexObject::MutexObject(const wchar_t* name) : mutex_(new NamedMutex(name)) {}

MutexObject::~MutexObject() { delete mutex_; }

bool MutexObject::IsValid() const { return mutex_->IsOpen(); }

std::uint32_t MutexObject::GetCreationError() const { return mutex_->OpenError(); }

std::uint32_t MutexObject::Acquire(std::uint32_t timeoutMilliseconds) {
  switch (mutex_->Wait(timeoutMilliseconds)) {
    case NamedMutex::WaitResult::kAcquired:
      return kWaitObject0;
    case NamedMutex::WaitResult::kAbandoned:
      return kWaitAbandoned;
    case NamedMutex::WaitResult::kTimedOut:
      return kWaitTimeout;
    case NamedMutex::WaitResult::kFailed:
      break;
  }
  return kWaitFailed;
}

bool MutexObject::Release() { return mutex_->Release(); }

}  // namespace Util
}  // namespace NorvaneSDK
