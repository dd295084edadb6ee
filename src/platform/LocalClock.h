// LocalClock: the wall clock, in local time and in UTC, and a millisecond
// tick counter.
//
// Now() gives the local date and time down to milliseconds (GetLocalTime
// on Windows; CLOCK_REALTIME and localtime_r elsewhere), UtcNow() the same
// in UTC (GetSystemTime; CLOCK_REALTIME and gmtime_r). TickCount() gives
// milliseconds since an arbitrary start, wrapping at 2^32 (GetTickCount;
// CLOCK_MONOTONIC elsewhere). Stateless; safe from any thread.
#ifndef TOVREL_PLATFORM_LOCALCLOCK_H
#define TOVREL_PLATFORM_LOCALCLOCK_H

#include <cstdint>

namespace Tovrel {

class LocalClock {
 public:
  struct Time {
    std::uint16_t year;
    std::uint16_t month;  // 1..12
    std::uint16_t day;    // 1..31
    std::uint16_t hour;
    std::uint16_t minute;
    std::uint16_t second;
    std::uint16_t milliseconds;
  };

  static Time Now();
  static Time UtcNow();
  static std::uint32_t TickCount();
};

}  // namespace Tovrel

#endif
