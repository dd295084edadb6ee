#include "effectcache/UnsavedCounts.h"

#include <cstring>

#include "effectcache/Adler32.h"
#include "effectcache/SideFile.h"
#include "pagefile/LittleEndian.h"

namespace Tovrel {

namespace {

constexpr std::uint8_t kMagic[4] = {'T', 'V', 'C', 'N'};
constexpr std::uint32_t kVersion = 1;
constexpr std::size_t kCounts = 9;
constexpr std::uint64_t kChecked = 8 + 8 * kCounts;

// The counts in file order.
void Fields(const EffectCacheStats& counts, std::uint64_t* fields) {
  const std::uint64_t all[kCounts] = {counts.hits,         counts.misses,       counts.cached,
                                      counts.trimmed,      counts.remoteHits,   counts.remoteMisses,
                                      counts.remoteErrors, counts.remoteBytesIn, counts.remoteBytesOut};
  std::memcpy(fields, all, sizeof all);
}

}  // namespace

std::wstring UnsavedCounts::PathFor(const std::wstring& cacheFilePath) {
  return SideFile::Beside(cacheFilePath, kFileName);
}

void UnsavedCounts::Encode(const EffectCacheStats& counts, std::uint8_t* bytes) {
  std::memcpy(bytes, kMagic, 4);
  LittleEndian::Store32(bytes + 4, kVersion);
  std::uint64_t fields[kCounts];
  Fields(counts, fields);
  for (std::size_t i = 0; i < kCounts; ++i) LittleEndian::Store64(bytes + 8 + 8 * i, fields[i]);
  LittleEndian::Store32(bytes + kChecked, Adler32::Update(Adler32::kStart, bytes, kChecked));
}

bool UnsavedCounts::Decode(const std::uint8_t* bytes, std::uint64_t size, EffectCacheStats* counts) {
  *counts = EffectCacheStats{};
  if (size != kFileSize || std::memcmp(bytes, kMagic, 4) != 0 || LittleEndian::Load32(bytes + 4) != kVersion) {
    return false;
  }
  if (LittleEndian::Load32(bytes + kChecked) != Adler32::Update(Adler32::kStart, bytes, kChecked)) return false;
  std::uint64_t* const targets[kCounts] = {&counts->hits,         &counts->misses,       &counts->cached,
                                           &counts->trimmed,      &counts->remoteHits,   &counts->remoteMisses,
                                           &counts->remoteErrors, &counts->remoteBytesIn, &counts->remoteBytesOut};
  for (std::size_t i = 0; i < kCounts; ++i) *targets[i] = LittleEndian::Load64(bytes + 8 + 8 * i);
  return true;
}

bool UnsavedCounts::Read(const std::wstring& path, EffectCacheStats* counts) {
  std::uint8_t bytes[kFileSize + 1];
  return Decode(bytes, SideFile::Read(path, bytes, sizeof bytes), counts);
}

bool UnsavedCounts::Add(const std::wstring& path, const EffectCacheStats& counts) {
  EffectCacheStats total;
  Read(path, &total);
  total.AddCounts(counts);
  std::uint8_t bytes[kFileSize];
  Encode(total, bytes);
  return SideFile::Replace(path, bytes, sizeof bytes);
}

bool UnsavedCounts::Remove(const std::wstring& path) { return SideFile::Remove(path); }

}  // namespace Tovrel
