// SystemValues: the clocks, random numbers and process id a time stamp is
// made of.
//
//   CalendarSeconds     _time64(NULL) / time(NULL): seconds since 1970
//   PerformanceCounter  QueryPerformanceCounter / CLOCK_MONOTONIC in ns
//   RandomNumber        the C runtime's rand(), never seeded here
//   ProcessId           GetCurrentProcessId / getpid
//
// Stateless; safe from any thread except RandomNumber, which shares the C
// runtime's generator.
#ifndef TOVREL_PLATFORM_SYSTEMVALUES_H
#define TOVREL_PLATFORM_SYSTEMVALUES_H

#include <cstdint>

namespace Tovrel {

class SystemValues {
 public:
  static std::int64_t CalendarSeconds();
  static std::int64_t PerformanceCounter();
  static std::uint32_t RandomNumber();
  static std::uint32_t ProcessId();
};

}  // namespace Tovrel

#endif
