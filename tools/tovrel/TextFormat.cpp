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
  return Counted(value, noun, noun + "s");
}

std::string TextFormat::Counted(std::uint64_t value, const std::string& singular, const std::string& plural) {
  return Count(value) + " " + (value == 1 ? singular : plural);
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

namespace {

// A stamp (UTC) as the local time of this system's time zone then, with
// that time's offset from UTC in minutes; the stamp itself, offset 0, when
// the system cannot place it.
struct LocalTime {
  CacheTimeStamp fields;
  long offsetMinutes;
};

LocalTime ToLocal(const CacheTimeStamp& utc) {
  const std::time_t when = static_cast<std::time_t>(utc.Seconds());
  const std::tm* local = std::localtime(&when);
  if (local == nullptr) return LocalTime{utc, 0};
  const CacheTimeStamp fields{static_cast<std::uint16_t>(local->tm_year + 1900),
                              static_cast<std::uint16_t>(local->tm_mon + 1),
                              static_cast<std::uint16_t>(local->tm_mday),
                              static_cast<std::uint16_t>(local->tm_hour),
                              static_cast<std::uint16_t>(local->tm_min),
                              static_cast<std::uint16_t>(local->tm_sec),
                              utc.milliseconds};
  return LocalTime{fields, static_cast<long>((fields.Seconds() - utc.Seconds()) / 60)};
}

// "2024-05-01" + separator + "11:03:07.045" + space + "+02:00"
std::string Format(const CacheTimeStamp& utc, char separator, const char* beforeOffset) {
  const LocalTime local = ToLocal(utc);
  const CacheTimeStamp& t = local.fields;
  const long minutes = local.offsetMinutes < 0 ? -local.offsetMinutes : local.offsetMinutes;
  char text[64];
  std::snprintf(text, sizeof text, "%04u-%02u-%02u%c%02u:%02u:%02u.%03u%s%c%02ld:%02ld", static_cast<unsigned>(t.year),
                static_cast<unsigned>(t.month), static_cast<unsigned>(t.day), separator,
                static_cast<unsigned>(t.hour), static_cast<unsigned>(t.minute), static_cast<unsigned>(t.second),
                static_cast<unsigned>(t.milliseconds), beforeOffset, local.offsetMinutes < 0 ? '-' : '+',
                minutes / 60, minutes % 60);
  return text;
}

}  // namespace

std::string TextFormat::Time(const CacheTimeStamp& stamp) { return Format(stamp, ' ', " "); }

std::string TextFormat::IsoTime(const CacheTimeStamp& stamp) { return Format(stamp, 'T', ""); }

std::string TextFormat::Path(const std::wstring& path) { return WideText::ToUtf8(path); }

std::string TextFormat::Right(const std::string& text, std::size_t width) {
  return text.size() >= width ? text : std::string(width - text.size(), ' ') + text;
}

std::string TextFormat::Left(const std::string& text, std::size_t width) {
  return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

}  // namespace Tool
}  // namespace Tovrel
