#include "platform/LocalClock.h"

#include <time.h>

namespace Tovrel {

LocalClock::Time LocalClock::Now() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  // localtime_r takes the C library's time-zone lock: threads that ask
  // many times a second would wait for each other. Within one second the
  // answer cannot change, so each thread keeps the last one.
  thread_local time_t cachedSecond = -1;
  thread_local tm local{};
  if (now.tv_sec != cachedSecond) {
    if (localtime_r(&now.tv_sec, &local) != nullptr) {
      cachedSecond = now.tv_sec;
    } else {
      local = tm{};
    }
  }
  Time time{};
  time.year = static_cast<std::uint16_t>(local.tm_year + 1900);
  time.month = static_cast<std::uint16_t>(local.tm_mon + 1);
  time.day = static_cast<std::uint16_t>(local.tm_mday);
  time.hour = static_cast<std::uint16_t>(local.tm_hour);
  time.minute = static_cast<std::uint16_t>(local.tm_min);
  time.second = static_cast<std::uint16_t>(local.tm_sec);
  time.milliseconds = static_cast<std::uint16_t>(now.tv_nsec / 1000000);
  return time;
}

std::uint32_t LocalClock::TickCount() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const std::uint64_t ms = static_cast<std::uint64_t>(now.tv_sec) * 1000 + static_cast<std::uint64_t>(now.tv_nsec) / 1000000;
  return static_cast<std::uint32_t>(ms);
}

}  // namespace Tovrel
