// CacheTimeStamp: the time, in UTC, at which an effect was written or last
// found, as kept in its index record (16 bytes, little-endian: year,
// month, day, hour, minute, second as 16-bit values, then milliseconds as
// a 32-bit value). Stamps order field by field in that order. UTC, so that
// a stamp means the same to every reader whatever its time zone (caches
// move between machines, and daylight saving turns local time back once a
// year); stamps that earlier versions wrote in local time are read as UTC.
// Plain value.
#ifndef TOVREL_EFFECTCACHE_CACHETIMESTAMP_H
#define TOVREL_EFFECTCACHE_CACHETIMESTAMP_H

#include <cstdint>
#include <tuple>

namespace Tovrel {

struct CacheTimeStamp {
  static constexpr std::uint64_t kSize = 16;

  std::uint16_t year;
  std::uint16_t month;
  std::uint16_t day;
  std::uint16_t hour;
  std::uint16_t minute;
  std::uint16_t second;
  std::uint32_t milliseconds;

  bool operator<(const CacheTimeStamp& other) const { return Fields() < other.Fields(); }
  bool operator==(const CacheTimeStamp& other) const { return Fields() == other.Fields(); }

  // Whole seconds since 1970-01-01 00:00:00 UTC, for ages.
  std::int64_t Seconds() const;
  // The stamp `seconds` after 1970-01-01 00:00:00 (milliseconds 0).
  static CacheTimeStamp FromSeconds(std::int64_t seconds);
  // The time now, in UTC, to the millisecond.
  static CacheTimeStamp Now();

  void Encode(std::uint8_t* bytes) const;
  static CacheTimeStamp Decode(const std::uint8_t* bytes);

 private:
  std::tuple<std::uint16_t, std::uint16_t, std::uint16_t, std::uint16_t, std::uint16_t, std::uint16_t,
             std::uint32_t>
  Fields() const {
    return std::make_tuple(year, month, day, hour, minute, second, milliseconds);
  }
};

}  // namespace Tovrel

#endif
