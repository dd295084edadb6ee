#include "effectcache/CacheTimeStamp.h"

#include "pagefile/LittleEndian.h"
#include "platform/LocalClock.h"

namespace Tovrel {

namespace {

// Days from 1970-01-01 to a date of the proleptic Gregorian calendar, and
// back (the civil-date algorithms: eras of 400 years, years from March).
std::int64_t DaysFromCivil(std::int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const auto yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

void CivilFromDays(std::int64_t z, std::int64_t* y, unsigned* m, unsigned* d) {
  z += 719468;
  const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const auto doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  *d = doy - (153 * mp + 2) / 5 + 1;
  *m = mp < 10 ? mp + 3 : mp - 9;
  *y = static_cast<std::int64_t>(yoe) + era * 400 + (*m <= 2);
}

}  // namespace

std::int64_t CacheTimeStamp::Seconds() const {
  const unsigned m = month >= 1 && month <= 12 ? month : 1;
  const std::int64_t days = DaysFromCivil(year, m, day);
  return days * 86400 + hour * 3600 + minute * 60 + second;
}

CacheTimeStamp CacheTimeStamp::FromSeconds(std::int64_t seconds) {
  const std::int64_t days = (seconds >= 0 ? seconds : seconds - 86399) / 86400;
  const std::int64_t rest = seconds - days * 86400;
  std::int64_t y = 0;
  unsigned m = 0, d = 0;
  CivilFromDays(days, &y, &m, &d);
  return CacheTimeStamp{static_cast<std::uint16_t>(y), static_cast<std::uint16_t>(m), static_cast<std::uint16_t>(d),
                        static_cast<std::uint16_t>(rest / 3600), static_cast<std::uint16_t>(rest / 60 % 60),
                        static_cast<std::uint16_t>(rest % 60), 0};
}

void CacheTimeStamp::Encode(std::uint8_t* bytes) const {
  LittleEndian::Store16(bytes, year);
  LittleEndian::Store16(bytes + 2, month);
  LittleEndian::Store16(bytes + 4, day);
  LittleEndian::Store16(bytes + 6, hour);
  LittleEndian::Store16(bytes + 8, minute);
  LittleEndian::Store16(bytes + 10, second);
  LittleEndian::Store32(bytes + 12, milliseconds);
}

CacheTimeStamp CacheTimeStamp::Decode(const std::uint8_t* bytes) {
  CacheTimeStamp stamp{};
  stamp.year = LittleEndian::Load16(bytes);
  stamp.month = LittleEndian::Load16(bytes + 2);
  stamp.day = LittleEndian::Load16(bytes + 4);
  stamp.hour = LittleEndian::Load16(bytes + 6);
  stamp.minute = LittleEndian::Load16(bytes + 8);
  stamp.second = LittleEndian::Load16(bytes + 10);
  stamp.milliseconds = LittleEndian::Load32(bytes + 12);
  return stamp;
}

CacheTimeStamp CacheTimeStamp::Now() {
  const LocalClock::Time t = LocalClock::UtcNow();
  return CacheTimeStamp{t.year, t.month, t.day, t.hour, t.minute, t.second, t.milliseconds};
}

}  // namespace Tovrel
