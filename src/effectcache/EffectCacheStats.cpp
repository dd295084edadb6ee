#include "effectcache/EffectCacheStats.h"

#include <iterator>

#include "effectcache/UserDataBlock.h"
#include "pagefile/LittleEndian.h"

namespace Tovrel {

namespace {

// The remote block's counts, in the order of their bytes from offset 8 on.
constexpr std::uint64_t EffectCacheStats::*kRemoteCounts[] = {
    &EffectCacheStats::remoteHits, &EffectCacheStats::remoteMisses, &EffectCacheStats::remoteErrors,
    &EffectCacheStats::remoteBytesIn, &EffectCacheStats::remoteBytesOut};

}  // namespace

void EffectCacheStats::AddCounts(const EffectCacheStats& more) {
  hits += more.hits;
  misses += more.misses;
  cached += more.cached;
  trimmed += more.trimmed;
  for (auto count : kRemoteCounts) this->*count += more.*count;
}

namespace {

// The payload of the remote block, or null when there is none of this shape.
const std::uint8_t* RemotePayload(const IDataStreamSet& package) {
  const std::uint8_t* data = package.GetUserData();
  const std::uint64_t at = UserDataBlock::Find(data, package.GetUserDataSize(), EffectCacheStats::kRemoteTag);
  if (at == UserDataBlock::kNotFound || UserDataBlock::PayloadSize(data, at) < EffectCacheStats::kRemotePayloadSize) {
    return nullptr;
  }
  const std::uint8_t* payload = data + at + UserDataBlock::kHeadSize;
  return LittleEndian::Load32(payload) == EffectCacheStats::kVersion ? payload : nullptr;
}

}  // namespace

bool EffectCacheStats::HasRemoteBlock(const IDataStreamSet& package) { return RemotePayload(package) != nullptr; }

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
  if (const std::uint8_t* remote = RemotePayload(package)) {
    for (std::size_t i = 0; i < std::size(kRemoteCounts); ++i) {
      out.*kRemoteCounts[i] = LittleEndian::Load64(remote + 8 + 8 * i);
    }
  }
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
  return WriteRemote(package, stats);
}

bool EffectCacheStats::WriteRemote(IDataStreamSet& package, const EffectCacheStats& stats) {
  const IDataStreamSet& view = package;
  const bool present = RemotePayload(view) != nullptr;
  if (!present && !stats.AnyRemoteCounts()) return true;  // nothing to keep: no block
  const bool foreign =
      !present && UserDataBlock::Find(view.GetUserData(), view.GetUserDataSize(), kRemoteTag) != UserDataBlock::kNotFound;
  if (foreign) return true;  // a block of this tag that is not ours is left alone
  std::uint8_t* remote = UserDataBlock::Ensure(package, kRemoteTag, kRemotePayloadSize);
  if (remote == nullptr) return false;
  LittleEndian::Store32(remote, kVersion);
  LittleEndian::Store32(remote + 4, 0);
  for (std::size_t i = 0; i < std::size(kRemoteCounts); ++i) {
    LittleEndian::Store64(remote + 8 + 8 * i, stats.*kRemoteCounts[i]);
  }
  return true;
}

}  // namespace Tovrel
