#include "effectcache/EffectCacheStats.h"

#include "effectcache/UserDataBlock.h"
#include "pagefile/LittleEndian.h"

namespace Tovrel {

void EffectCacheStats::AddCounts(const EffectCacheStats& more) {
  hits += more.hits;
  misses += more.misses;
  cached += more.cached;
  trimmed += more.trimmed;
}

void EffectCacheStats::Encode(std::uint8_t* payload) const {
  LittleEndian::Store32(payload, kVersion);
  LittleEndian::Store32(payload + 4, 0);
  LittleEndian::Store64(payload + 8, hits);
  LittleEndian::Store64(payload + 16, misses);
  LittleEndian::Store64(payload + 24, cached);
  LittleEndian::Store64(payload + 32, trimmed);
  zeroed.Encode(payload + 40);
}

EffectCacheStats EffectCacheStats::Decode(const std::uint8_t* payload) {
  EffectCacheStats stats;
  stats.hits = LittleEndian::Load64(payload + 8);
  stats.misses = LittleEndian::Load64(payload + 16);
  stats.cached = LittleEndian::Load64(payload + 24);
  stats.trimmed = LittleEndian::Load64(payload + 32);
  stats.zeroed = CacheTimeStamp::Decode(payload + 40);
  return stats;
}

bool EffectCacheStats::Read(const IDataStreamSet& package, EffectCacheStats& out) {
  const std::uint8_t* data = package.GetUserData();
  const std::uint64_t at = UserDataBlock::Find(data, package.GetUserDataSize(), kTag);
  if (at == UserDataBlock::kNotFound || UserDataBlock::PayloadSize(data, at) < kPayloadSize) return false;
  const std::uint8_t* payload = data + at + UserDataBlock::kHeadSize;
  if (LittleEndian::Load32(payload) != kVersion) return false;
  out = Decode(payload);
  return true;
}

bool EffectCacheStats::AddTo(IDataStreamSet& package, const EffectCacheStats& counts, const CacheTimeStamp& now,
                             bool reset) {
  EffectCacheStats stats;
  const bool present = Read(package, stats);
  if (!present || reset) {
    stats = EffectCacheStats{};
    stats.zeroed = now;
  }
  stats.AddCounts(counts);
  const IDataStreamSet& view = package;
  const std::uint64_t at = UserDataBlock::Find(view.GetUserData(), view.GetUserDataSize(), kTag);
  if (at != UserDataBlock::kNotFound && !present) {
    // A block of this tag that is not ours to read is not ours to write.
    return false;
  }
  std::uint8_t* payload = UserDataBlock::Ensure(package, kTag, kPayloadSize);
  if (payload == nullptr) return false;
  stats.Encode(payload);
  return true;
}

}  // namespace Tovrel
