// EffectRecord: one stored effect's entry in the cache's index stream.
// 44 bytes, packed, little-endian: stream id (8), name length (4),
// uncompressed size (4), permanent flag (4), last used (16), compressed
// size (4), reserved (4, written as 0). Plain value.
#ifndef TOVREL_EFFECTCACHE_EFFECTRECORD_H
#define TOVREL_EFFECTCACHE_EFFECTRECORD_H

#include <cstdint>

#include "effectcache/CacheTimeStamp.h"

namespace Tovrel {

struct EffectRecord {
  static constexpr std::uint64_t kSize = 44;

  std::uint64_t streamId;          // the stream holding the compressed effect
  std::uint32_t nameLength;        // bytes of the UTF-8 name, 1..65536
  std::uint32_t uncompressedSize;  // 1..1048576
  std::uint32_t permanent;         // 1: never trimmed
  CacheTimeStamp lastUsed;         // written, or last found by a search
  std::uint32_t compressedSize;    // bytes of the zlib stream
  std::uint32_t reserved;          // kept in memory as read

  void Encode(std::uint8_t* bytes) const;
  static EffectRecord Decode(const std::uint8_t* bytes);
};

}  // namespace Tovrel

#endif
