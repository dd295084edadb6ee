#include "tovrel/MultiProcessTimeStamp.h"

#include <cstdint>
#include <cstring>

#include "platform/SystemValues.h"
#include "shared/SharedBlockAccess.h"

namespace Tovrel {

namespace {

// Compares in three 64-bit steps: seconds, counter, then random and
// process id together.
bool Differs(const TimeStampValue& local, const void* shared) {
  std::uint64_t mine[3];
  std::uint64_t theirs[3];
  std::memcpy(mine, &local, sizeof(mine));
  std::memcpy(theirs, shared, sizeof(theirs));
  for (int i = 0; i < 3; ++i) {
    if (mine[i] != theirs[i]) return true;
  }
  return false;
}

}  // namespace

MultiProcessTimeStamp::MultiProcessTimeStamp() : stamp_() {}

MultiProcessTimeStamp::~MultiProcessTimeStamp() = default;

bool MultiProcessTimeStamp::Initialize(const wchar_t* name) {
  return MultiProcessMemory::Initialize(name, sizeof(TimeStampValue));
}

bool MultiProcessTimeStamp::IsChanged() {
  const void* block = SharedBlockAccess::Lock(*this);
  bool changed = false;
  if (block != nullptr && Differs(stamp_, block)) {
    std::memcpy(&stamp_, block, sizeof(stamp_));
    changed = true;
  }
  Unlock();
  return changed;
}

void MultiProcessTimeStamp::UpdateTimeStamp() {
  MakeFreshStamp();
  void* block = SharedBlockAccess::Lock(*this);
  if (block != nullptr) std::memcpy(block, &stamp_, sizeof(stamp_));
  Unlock();
}

void MultiProcessTimeStamp::OnMemoryCreated(void* memory) {
  MakeFreshStamp();
  std::memcpy(memory, &stamp_, sizeof(stamp_));
}

void MultiProcessTimeStamp::OnMemoryAttached(void* memory) {
  std::memcpy(&stamp_, memory, sizeof(stamp_));
}

void MultiProcessTimeStamp::MakeFreshStamp() {
  stamp_.seconds = SystemValues::CalendarSeconds();
  stamp_.counter = SystemValues::PerformanceCounter();
  stamp_.random = SystemValues::RandomNumber();
  stamp_.processId = SystemValues::ProcessId();
}

}  // namespace Tovrel
