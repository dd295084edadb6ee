#include "effectcache/EffectCacheHeader.h"

#include "effectcache/UserDataBlock.h"
#include "pagefile/LittleEndian.h"

namespace Tovrel {

void EffectCacheHeader::Encode(std::uint8_t* payload) const {
  LittleEndian::Store32(payload, version);
  LittleEndian::Store64(payload + 4, effectCount);
  LittleEndian::Store64(payload + 12, indexStreamId);
  LittleEndian::Store32(payload + 20, reserved1);
  LittleEndian::Store32(payload + 24, reserved2);
}

EffectCacheHeader EffectCacheHeader::Decode(const std::uint8_t* payload) {
  EffectCacheHeader header{};
  header.version = LittleEndian::Load32(payload);
  header.effectCount = LittleEndian::Load64(payload + 4);
  header.indexStreamId = LittleEndian::Load64(payload + 12);
  header.reserved1 = LittleEndian::Load32(payload + 20);
  header.reserved2 = LittleEndian::Load32(payload + 24);
  return header;
}

std::uint64_t EffectCacheHeader::FindBlock(const std::uint8_t* userData, std::uint64_t size) {
  return UserDataBlock::Find(userData, size, kTag);
}

bool EffectCacheHeader::Read(const std::uint8_t* userData, std::uint64_t size, EffectCacheHeader& out) {
  const std::uint64_t at = FindBlock(userData, size);
  if (at == kNotFound) return false;
  if (LittleEndian::Load32(userData + at + 4) < kPayloadSize) return false;
  const EffectCacheHeader header = Decode(userData + at + kBlockHeadSize);
  if (header.version != kVersion || header.effectCount > kEffectCountLimit) return false;
  out = header;
  return true;
}

}  // namespace Tovrel
