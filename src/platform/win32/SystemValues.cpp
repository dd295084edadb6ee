#include "platform/SystemValues.h"

#include <windows.h>
#include <time.h>

#include <cstdlib>

namespace Tovrel {

std::int64_t SystemValues::CalendarSeconds() { return static_cast<std::int64_t>(_time64(nullptr)); }

std::int64_t SystemValues::PerformanceCounter() {
  LARGE_INTEGER counter{};
  QueryPerformanceCounter(&counter);
  return static_cast<std::int64_t>(counter.QuadPart);
}

std::uint32_t SystemValues::RandomNumber() { return static_cast<std::uint32_t>(std::rand()); }

std::uint32_t SystemValues::ProcessId() { return static_cast<std::uint32_t>(GetCurrentProcessId()); }

}  // namespace Tovrel
