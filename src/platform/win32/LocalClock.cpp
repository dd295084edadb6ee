#include "platform/LocalClock.h"

#include <windows.h>

namespace Tovrel {

namespace {

LocalClock::Time FromSystemTime(const SYSTEMTIME& t) {
  LocalClock::Time time{};
  time.year = t.wYear;
  time.month = t.wMonth;
  time.day = t.wDay;
  time.hour = t.wHour;
  time.minute = t.wMinute;
  time.second = t.wSecond;
  time.milliseconds = t.wMilliseconds;
  return time;
}

}  // namespace

LocalClock::Time LocalClock::Now() {
  SYSTEMTIME local{};
  GetLocalTime(&local);
  return FromSystemTime(local);
}

LocalClock::Time LocalClock::UtcNow() {
  SYSTEMTIME utc{};
  GetSystemTime(&utc);
  return FromSystemTime(utc);
}

std::uint32_t LocalClock::TickCount() { return GetTickCount(); }

}  // namespace Tovrel
