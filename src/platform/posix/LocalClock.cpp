#include "platform/LocalClock.h"

#include <time.h>

namespace Tovrel {

namespace {

// The calendar time of `now` by `convert` (localtime_r or gmtime_r). Both
// may take the C library's time-zone lock: threads that ask many times a
// second would wait for each other. Within one second the answer cannot
// change, so each thread keeps the last one of each kind in `cache`.
struct CachedSecond {
  time_t second = -1;
  tm fields{};
};

LocalClock::Time Convert(const timespec& now, tm* (*convert)(const time_t*, tm*), CachedSecond& cache) {
  if (now.tv_sec != cache.second) {
    if (convert(&now.tv_sec, &cache.fields) != nullptr) {
      cache.second = now.tv_sec;
    } else {
      cache.fields = tm{};
    }
  }
  const tm& t = cache.fields;
  LocalClock::Time time{};
  time.year = static_cast<std::uint16_t>(t.tm_year + 1900);
  time.month = static_cast<std::uint16_t>(t.tm_mon + 1);
  time.day = static_cast<std::uint16_t>(t.tm_mday);
  time.hour = static_cast<std::uint16_t>(t.tm_hour);
  time.minute = static_cast<std::uint16_t>(t.tm_min);
  time.second = static_cast<std::uint16_t>(t.tm_sec);
  time.milliseconds = static_cast<std::uint16_t>(now.tv_nsec / 1000000);
  return time;
}

}  // namespace

LocalClock::Time LocalClock::Now() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  thread_local CachedSecond local;
  return Convert(now, &localtime_r, local);
}

LocalClock::Time LocalClock::UtcNow() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  thread_local CachedSecond utc;
  return Convert(now, &gmtime_r, utc);
}

std::uint32_t LocalClock::TickCount() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const std::uint64_t ms = static_cast<std::uint64_t>(now.tv_sec) * 1000 + static_cast<std::uint64_t>(now.tv_nsec) / 1000000;
  return static_cast<std::uint32_t>(ms);
}

}  // namespace Tovrel
