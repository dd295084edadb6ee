#include "effectcache/EffectCacheProfile.h"

#include <cstdio>

#include "platform/Environment.h"
#include "platform/PlatformFile.h"

namespace Tovrel {

namespace {

std::string Line(const char* label, double value, const char* unit) {
  char text[128];
  std::snprintf(text, sizeof text, "%s%g%s\n", label, value, unit);
  return text;
}

}  // namespace

void EffectCacheProfile::AddCompression(std::uint64_t inputBytes, std::uint64_t outputBytes,
                                        std::uint32_t milliseconds) {
  totalUncompressedBytes += inputBytes;
  totalCompressedBytes += outputBytes;
  compressionMilliseconds += milliseconds;
}

void EffectCacheProfile::AddDecompression(std::uint32_t milliseconds) { decompressionMilliseconds += milliseconds; }

void EffectCacheProfile::Reset() { *this = EffectCacheProfile(); }

std::string EffectCacheProfile::Report() const {
  std::string report;
  if (totalUncompressedBytes != 0) {
    const double rate = static_cast<double>(totalCompressedBytes) / static_cast<double>(totalUncompressedBytes) * 100.0;
    report += Line("Compression Rate: ", rate, " %");
  }
  report += Line("Compression Time: ", compressionMilliseconds * 0.001, " seconds");
  report += Line("Decompression Time: ", decompressionMilliseconds * 0.001, " seconds");
  return report;
}

void EffectCacheProfile::AppendTo(const std::wstring& path) const {
  if (path.empty()) return;
  FileHandle* file = PlatformFile::Open(path.c_str(), "ab");
  if (file == nullptr) return;
  const std::string report = Report();
  PlatformFile::Write(report.data(), 1, report.size(), file);
  PlatformFile::Close(file);
}

void EffectCacheProfile::AppendToConfiguredLog() const { AppendTo(Environment::Get(kVariable)); }

}  // namespace Tovrel
