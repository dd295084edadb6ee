#include "TextFormat.h"

#include <cstdio>
#include <ctime>

#include "platform/WideText.h"

namespace Tovrel {
namespace Tool {

std::string TextFormat::Count(std::uint64_t value) {
  std::string digits = std::to_string(value);
  for (std::size_t at = digits.size(); at > 3; at -= 3) digits.insert(at - 3, ",");
  return digits;
}

std::string TextFormat::Size(std::uint64_t bytes) {
  static const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
  if (bytes < 1024) return std::to_string(bytes) + " B";
  double value = bytes / 1024.0;
  std::size_t unit = 0;
  while (value >= 1024.0 && unit + 1 < sizeof kUnits / sizeof kUnits[0]) {
    value /= 1024.0;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
  return text;
}

std::string TextFormat::Counted(std::uint64_t value, const std::string& noun) {
  return Count(value) + " " + noun + (value == 1 ? "" : "s");
}

std::string TextFormat::Bytes(std::uint64_t bytes) {
  const std::string exact = Count(bytes) + (bytes == 1 ? " byte" : " bytes");
  return bytes < 1024 ? exact : exact + " (" + Size(bytes) + ")";
}

std::string TextFormat::Ratio(std::uint64_t whole, std::uint64_t part) {
  if (part == 0) return "-";
  char text[32];
  std::snprintf(text, sizeof text, "%.2f:1", static_cast<double>(whole) / static_cast<double>(part));
  return text;
}

std::string TextFormat::Percent(std::uint64_t part, std::uint64_t whole) {
  if (whole == 0) return "-";
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %%", 100.0 * static_cast<double>(part) / static_cast<double>(whole));
  return text;
}

std::string TextFormat::Seconds(double seconds) {
  char text[32];
  if (seconds < 1.0) {
    std::snprintf(text, sizeof text, "%.0f ms", seconds * 1000.0);
  } else {
    std::snprintf(text, sizeof text, "%.2f s", seconds);
  }
  return text;
}

std::string TextFormat::Time(const CacheTimeStamp& stamp) {
  char text[48];
  std::snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u:%02u.%03u", static_cast<unsigned>(stamp.year),
                static_cast<unsigned>(stamp.month), static_cast<unsigned>(stamp.day),
                static_cast<unsigned>(stamp.hour), static_cast<unsigned>(stamp.minute),
                static_cast<unsigned>(stamp.second), static_cast<unsigned>(stamp.milliseconds));
  return text;
}

namespace {

// The offset from UTC, in minutes, of the local time the stamp names (as
// the system's time zone rules give it then); 0 when the system cannot
// place it.
long UtcOffsetMinutes(const CacheTimeStamp& stamp) {
  std::tm local{};
  local.tm_year = stamp.year - 1900;
  local.tm_mon = stamp.month - 1;
  local.tm_mday = stamp.day;
  local.tm_hour = stamp.hour;
  local.tm_min = stamp.minute;
  local.tm_sec = stamp.second;
  local.tm_isdst = -1;
  const std::time_t when = std::mktime(&local);
  if (when == static_cast<std::time_t>(-1)) return 0;
  const std::tm* utc = std::gmtime(&when);
  if (utc == nullptr) return 0;
  const CacheTimeStamp asUtc{static_cast<std::uint16_t>(utc->tm_year + 1900), static_cast<std::uint16_t>(utc->tm_mon + 1),
                             static_cast<std::uint16_t>(utc->tm_mday), static_cast<std::uint16_t>(utc->tm_hour),
                             static_cast<std::uint16_t>(utc->tm_min), static_cast<std::uint16_t>(utc->tm_sec), 0};
  const CacheTimeStamp asLocal{stamp.year, stamp.month, stamp.day, stamp.hour, stamp.minute, stamp.second, 0};
  return static_cast<long>((asLocal.Seconds() - asUtc.Seconds()) / 60);
}

}  // namespace

std::string TextFormat::IsoTime(const CacheTimeStamp& stamp) {
  const long offset = UtcOffsetMinutes(stamp);
  const long minutes = offset < 0 ? -offset : offset;
  char text[64];
  std::snprintf(text, sizeof text, "%04u-%02u-%02uT%02u:%02u:%02u.%03u%c%02ld:%02ld", static_cast<unsigned>(stamp.year),
                static_cast<unsigned>(stamp.month), static_cast<unsigned>(stamp.day),
                static_cast<unsigned>(stamp.hour), static_cast<unsigned>(stamp.minute),
                static_cast<unsigned>(stamp.second), static_cast<unsigned>(stamp.milliseconds), offset < 0 ? '-' : '+',
                minutes / 60, minutes % 60);
  return text;
}

std::string TextFormat::Path(const std::wstring& path) { return WideText::ToUtf8(path); }

std::string TextFormat::Right(const std::string& text, std::size_t width) {
  return text.size() >= width ? text : std::string(width - text.size(), ' ') + text;
}

std::string TextFormat::Left(const std::string& text, std::size_t width) {
  return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

}  // namespace Tool
}  // namespace Tovrel
