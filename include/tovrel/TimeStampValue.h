// TimeStampValue: the 24-byte stamp that processes sharing a file compare
// to learn that another one has changed it.
//
// The shared block of a MultiProcessTimeStamp holds exactly these 24 bytes,
// and each process keeps a copy of its own. A fresh stamp takes its four
// values in field order. Plain value type.
#ifndef TOVREL_TIMESTAMPVALUE_H
#define TOVREL_TIMESTAMPVALUE_H

#include <cstddef>
#include <cstdint>

namespace Tovrel {

struct TimeStampValue {
  std::int64_t seconds;     // calendar time, seconds since 1970 (_time64)
  std::int64_t counter;     // the performance counter
  std::uint32_t random;     // rand(); the library never seeds the generator
  std::uint32_t processId;  // the process that made the stamp
};

static_assert(sizeof(TimeStampValue) == 24, "the stamp is 24 bytes in shared memory");
static_assert(offsetof(TimeStampValue, counter) == 8, "counter at offset 8");
static_assert(offsetof(TimeStampValue, random) == 16, "random at offset 16");
static_assert(offsetof(TimeStampValue, processId) == 20, "process id at offset 20");

}  // namespace Tovrel

#endif
