#include "platform/SystemValues.h"

#include <time.h>
#include <unistd.h>

#include <cstdlib>

namespace Tovrel {

std::int64_t SystemValues::CalendarSeconds() { return static_cast<std::int64_t>(time(nullptr)); }

std::int64_t SystemValues::PerformanceCounter() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

std::uint32_t SystemValues::RandomNumber() { return static_cast<std::uint32_t>(std::rand()); }

std::uint32_t SystemValues::ProcessId() { return static_cast<std::uint32_t>(getpid()); }

}  // namespace Tovrel
