// EffectCacheProfile: how well one effect cache object compressed, and
// how long it spent compressing and decompressing.
//
// The counters cover only this object's own work. When the environment
// variable "NORVANEEFFECTCACHEPROFILE" names a file, the cache appends
// its report there when it is destroyed:
//   Compression Rate: <compressed / uncompressed * 100> %   (only if it compressed)
//   Compression Time: <seconds> seconds
//   Decompression Time: <seconds> seconds
// Numbers are printed with six significant digits. A file that cannot be
// opened is silently skipped.
//
// Owned by the cache implementation. Thread-safety: none; the cache's lock
// serialises its use.
#ifndef TOVREL_EFFECTCACHE_EFFECTCACHEPROFILE_H
#define TOVREL_EFFECTCACHE_EFFECTCACHEPROFILE_H

#include <cstdint>
#include <string>

namespace Tovrel {

class EffectCacheProfile {
 public:
  static constexpr const wchar_t* kVariable = L"NORVANEEFFECTCACHEPROFILE";

  void AddCompression(std::uint64_t inputBytes, std::uint64_t outputBytes, std::uint32_t milliseconds);
  void AddDecompression(std::uint32_t milliseconds);
  void Reset();

  // The report's three (or two) lines.
  std::string Report() const;
  // Appends the report to `path`; nothing when it cannot be opened.
  void AppendTo(const std::wstring& path) const;
  // Appends the report to the file the environment names, if any.
  void AppendToConfiguredLog() const;

  std::uint64_t totalUncompressedBytes = 0;
  std::uint64_t totalCompressedBytes = 0;
  std::uint32_t compressionMilliseconds = 0;    // wraps
  std::uint32_t decompressionMilliseconds = 0;  // wraps
};

}  // namespace Tovrel

#endif
