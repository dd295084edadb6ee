#include "tovrel/MultiProcessMemory.h"

#include <cassert>
#include <new>
#include <string>

#include "host/AutoMutex.h"
#include "host/MutexObject.h"
#include "pagefile/OutOfMemoryException.h"
#include "pagefile/Win32APICallFailedException.h"
#include "platform/SharedMemoryMapping.h"
#include "platform/SystemError.h"

namespace Tovrel {

using NorvaneSDK::Util::AutoMutex;
using NorvaneSDK::Util::MutexObject;

namespace {

[[noreturn]] void ThrowSystemError() { throw Win32APICallFailedException(SystemError::Last()); }

MutexObject* MakeMutex(const std::wstring& name) {
  try {
    return new MutexObject(name.c_str());
  } catch (const std::bad_alloc&) {
    throw OutOfMemoryException();
  }
}

}  // namespace

MultiProcessMemory::MultiProcessMemory() : mutex_(nullptr), bytes_(0), mapping_(nullptr), view_(nullptr) {}

MultiProcessMemory::~MultiProcessMemory() { CloseMapping(); }

bool MultiProcessMemory::Initialize(const wchar_t* name, std::size_t bytes) {
  AssertValid();
  if (name == nullptr) return false;
  CloseMapping();
  mutex_ = MakeMutex(std::wstring(name) + L"_mutex");
  if (!mutex_->IsValid()) throw Win32APICallFailedException(mutex_->GetCreationError());
  AutoMutex hold(*mutex_);
  if (!hold.IsOwner() || hold.GetResult() == MutexObject::kWaitAbandoned) ThrowSystemError();
  bool created = false;
  mapping_ = SharedMemoryMapping::Open(name);
  if (mapping_ == nullptr) {
    mapping_ = SharedMemoryMapping::Create(name, static_cast<std::uint32_t>(bytes));
    created = true;
  }
  if (mapping_ == nullptr) ThrowSystemError();
  view_ = SharedMemoryMapping::MapView(mapping_, bytes);
  if (view_ == nullptr) ThrowSystemError();
  if (created) {
    OnMemoryCreated(view_);
  } else {
    OnMemoryAttached(view_);
  }
  return true;
}

void* MultiProcessMemory::Lock(std::uint32_t timeoutMilliseconds) {
  AssertValid();
  if (mutex_ == nullptr) return nullptr;
  if (mutex_->Acquire(timeoutMilliseconds) == MutexObject::kWaitAbandoned) return nullptr;
  return view_;
}

void MultiProcessMemory::Unlock() {
  AssertValid();
  if (mutex_ != nullptr) mutex_->Release();
}

std::size_t MultiProcessMemory::GetBytes() const { return bytes_; }

void MultiProcessMemory::OnMemoryCreated(void* /*memory*/) {}

void MultiProcessMemory::OnMemoryAttached(void* /*memory*/) {}

// The last holder's close frees the block, so closing is serialised with
// opening under the mutex.
void MultiProcessMemory::CloseMapping() {
  if (mutex_ != nullptr) {
    AutoMutex hold(*mutex_);
    CloseBlock();
  } else {
    CloseBlock();
  }
  delete mutex_;
  mutex_ = nullptr;
  bytes_ = 0;
  mapping_ = nullptr;
  view_ = nullptr;
}

void MultiProcessMemory::CloseBlock() {
  if (view_ != nullptr) SharedMemoryMapping::UnmapView(mapping_, view_);
  if (mapping_ != nullptr) SharedMemoryMapping::Close(mapping_);
}

void MultiProcessMemory::AssertValid() const {
  assert(view_ == nullptr || mapping_ != nullptr);
  assert(mapping_ == nullptr || mutex_ != nullptr);
  assert(bytes_ == 0);
}

}  // namespace Tovrel
