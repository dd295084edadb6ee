#include "platform/LocalClock.h"

#include <windows.h>

namespace Tovrel {

LocalClock::Time LocalClock::Now() {
  SYSTEMTIME local{};
  GetLocalTime(&local);
  Time time{};
  time.year = local.wYear;
  time.month = local.wMonth;
  time.day = local.wDay;
  time.hour = local.wHour;
  time.minute = local.wMinute;
  time.second = local.wSecond;
  time.milliseconds = local.wMilliseconds;
  return time;
}

std::uint32_t LocalClock::TickCount() { return GetTickCount(); }

}  // namespace Tovrel
