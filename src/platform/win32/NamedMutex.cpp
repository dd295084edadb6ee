#include "platform/NamedMutex.h"

#include <windows.h>

#include <string>

#include "platform/MutexWaits.h"
#include "platform/WideText.h"

namespace Tovrel {

namespace {

NamedMutex::WaitResult WaitOn(HANDLE handle, std::uint32_t timeoutMilliseconds) {
  switch (WaitForSingleObject(handle, timeoutMilliseconds)) {
    case WAIT_OBJECT_0:
      return NamedMutex::WaitResult::kAcquired;
    case WAIT_ABANDONED:
      return NamedMutex::WaitResult::kAbandoned;
    case WAIT_TIMEOUT:
      return NamedMutex::WaitResult::kTimedOut;
    default:
      return NamedMutex::WaitResult::kFailed;
  }
}

}  // namespace

struct NamedMutex::Native {
  HANDLE handle;     // the kernel mutex
  std::string name;  // UTF-8, as MutexWaits counts it
};

NamedMutex::NamedMutex(const wchar_t* name) : native_(nullptr), openError_(0) {
  if (name == nullptr || name[0] == L'\0') {
    openError_ = ERROR_INVALID_NAME;
    return;
  }
  Native* native = new Native{nullptr, WideText::ToUtf8(name)};
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
  const bool counted = MutexWaits::Enter(native_->name);
  const WaitResult result = WaitOn(native_->handle, timeoutMilliseconds);
  if (counted) {
    const DWORD error = GetLastError();
    MutexWaits::Leave(native_->name);
    SetLastError(error);
  }
  return result;
}

bool NamedMutex::Release() {
  if (native_ == nullptr) {
    SetLastError(ERROR_INVALID_HANDLE);
    return false;
  }
  return ReleaseMutex(native_->handle) != FALSE;
}

}  // namespace Tovrel
