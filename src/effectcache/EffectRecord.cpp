#include "effectcache/EffectRecord.h"

#include "pagefile/LittleEndian.h"

namespace Tovrel {

void EffectRecord::Encode(std::uint8_t* bytes) const {
  LittleEndian::Store64(bytes, streamId);
  LittleEndian::Store32(bytes + 8, nameLength);
  LittleEndian::Store32(bytes + 12, uncompressedSize);
  LittleEndian::Store32(bytes + 16, permanent);
  lastUsed.Encode(bytes + 20);
  LittleEndian::Store32(bytes + 36, compressedSize);
  LittleEndian::Store32(bytes + 40, 0);
}

EffectRecord EffectRecord::Decode(const std::uint8_t* bytes) {
  EffectRecord record{};
  record.streamId = LittleEndian::Load64(bytes);
  record.nameLength = LittleEndian::Load32(bytes + 8);
  record.uncompressedSize = LittleEndian::Load32(bytes + 12);
  record.permanent = LittleEndian::Load32(bytes + 16);
  record.lastUsed = CacheTimeStamp::Decode(bytes + 20);
  record.compressedSize = LittleEndian::Load32(bytes + 36);
  record.reserved = LittleEndian::Load32(bytes + 40);
  return record;
}

}  // namespace Tovrel
