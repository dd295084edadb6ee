#include "platform/NamedMutex.h"

#include <windows.h>

namespace Tovrel {

struct NamedMutex::Native {
  HANDLE handle;  // the kernel mutex
};

NamedMutex::NamedMutex(const wchar_t* name) : native_(nullptr), openError_(0) {
  if (name == nullptr || name[0] == L'\0') {
    openError_ = ERROR_INVALID_NAME;
    return;
  }
  Native* native = new Native{nullptr};
  native->handle = CreateMutexW(nullptr, FALSE, name);
  if (native->handle == nullptr) {
    openError_ = static_cast<std::uint32_t>(GetLastError());
    delete native;
    return;
  }
  native_ = native;
}

NamedMutex::~NamedMutex() {
  if (native_ == nullptr) return;
  CloseHandle(native_->handle);
  delete native_;
}

NamedMutex::WaitResult NamedMutex::Wait(std::uint32_t timeoutMilliseconds) {
  if (native_ == nullptr) {
    SetLastError(ERROR_INVALID_HANDLE);
    return WaitResult::kFailed;
  }
  switch (WaitForSingleObject(native_->handle, timeoutMilliseconds)) {
    case WAIT_OBJECT_0:
      return WaitResult::kAcquired;
    case WAIT_ABANDONED:
      return WaitResult::kAbandoned;
    case WAIT_TIMEOUT:
      return WaitResult::kTimedOut;
    default:
      return WaitResult::kFailed;
  }
}

bool NamedMutex::Release() {
  if (native_ == nullptr) {
    SetLastError(ERROR_INVALID_HANDLE);
    return false;
  }
  return ReleaseMutex(native_->handle) != FALSE;
}

}  // namespace Tovrel
