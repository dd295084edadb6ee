// TextFormat: how the tool writes numbers, sizes, ratios, times and
// paths for people: digits grouped by thousands ("35,212,288"), sizes
// also in binary units ("33.6 MiB"), ratios as "3.03:1", a cache's time
// stamps as "2024-05-01 12:00:01.123", paths as UTF-8.
// Stateless; safe from any thread.
#ifndef TOVREL_TOOL_TEXTFORMAT_H
#define TOVREL_TOOL_TEXTFORMAT_H

#include <cstdint>
#include <string>

#include "effectcache/CacheTimeStamp.h"

namespace Tovrel {
namespace Tool {

class TextFormat {
 public:
  static std::string Count(std::uint64_t value);
  // "1 effect", "1,234 effects": the count and the noun, plural with an s.
  static std::string Counted(std::uint64_t value, const std::string& noun);
  // The same for a noun whose plural is not the singular and "s".
  static std::string Counted(std::uint64_t value, const std::string& singular, const std::string& plural);
  // "35,212,288 bytes (33.6 MiB)"; "512 bytes" below 1 KiB.
  static std::string Bytes(std::uint64_t bytes);
  // "33.6 MiB", "2.0 KiB", "512 B".
  static std::string Size(std::uint64_t bytes);
  // whole / part as "3.03:1"; "-" when part is 0.
  static std::string Ratio(std::uint64_t whole, std::uint64_t part);
  // part / whole as "88.5 %"; "-" when whole is 0.
  static std::string Percent(std::uint64_t part, std::uint64_t whole);
  // "7.41 s" (milliseconds below a second: "310 ms").
  static std::string Seconds(double seconds);
  // A stamp (kept in UTC) in this system's local time then, with its
  // offset from UTC: "2026-11-24 17:34:18.875 +01:00".
  static std::string Time(const CacheTimeStamp& stamp);
  // The same in ISO 8601, as JSON gives times: "2026-11-24T17:34:18.875+01:00".
  static std::string IsoTime(const CacheTimeStamp& stamp);
  static std::string Path(const std::wstring& path);
  // `text` padded with spaces on the left (numbers) or right to `width`.
  static std::string Right(const std::string& text, std::size_t width);
  static std::string Left(const std::string& text, std::size_t width);
};

}  // namespace Tool
}  // namespace Tovrel

#endif
