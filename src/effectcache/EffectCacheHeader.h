// EffectCacheHeader: the cache's own block in its package's user data.
//
// The user data is a run of tagged blocks: a 32-bit tag, a 64-bit payload
// length (readers use its low 32 bits), then the payload. The cache's
// block has tag 20091030 and a 28-byte payload: version (4, = 13), effect
// count (8), index stream id (8, all ones for none) and two reserved
// 32-bit values kept as read. Blocks with other tags belong to others and
// are left untouched. Plain value with static helpers over the user data.
#ifndef TOVREL_EFFECTCACHE_EFFECTCACHEHEADER_H
#define TOVREL_EFFECTCACHE_EFFECTCACHEHEADER_H

#include <cstdint>

namespace Tovrel {

struct EffectCacheHeader {
  static constexpr std::uint32_t kTag = 20091030;
  static constexpr std::uint32_t kVersion = 13;
  static constexpr std::uint64_t kPayloadSize = 28;
  static constexpr std::uint64_t kBlockHeadSize = 12;
  static constexpr std::uint64_t kEffectCountLimit = 8388608;
  static constexpr std::uint64_t kNoIndex = ~std::uint64_t{0};
  static constexpr std::uint64_t kNotFound = ~std::uint64_t{0};

  std::uint32_t version;
  std::uint64_t effectCount;
  std::uint64_t indexStreamId;
  std::uint32_t reserved1;
  std::uint32_t reserved2;

  // The header of a new, empty cache.
  static EffectCacheHeader Empty() { return EffectCacheHeader{kVersion, 0, kNoIndex, 0, 0}; }

  void Encode(std::uint8_t* payload) const;
  static EffectCacheHeader Decode(const std::uint8_t* payload);

  // Offset of the cache's block head in the user data, or kNotFound when
  // the blocks run past the end before it is found (or it is absent).
  static std::uint64_t FindBlock(const std::uint8_t* userData, std::uint64_t size);

  // Reads the header from the user data: false when the block is missing,
  // its payload is shorter than 28 bytes, or version or count is wrong.
  static bool Read(const std::uint8_t* userData, std::uint64_t size, EffectCacheHeader& out);
};

}  // namespace Tovrel

#endif
