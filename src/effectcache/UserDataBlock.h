// UserDataBlock: the tagged blocks of a cache package's user data.
//
// The user data is a run of blocks: a 32-bit tag, a 64-bit payload length
// (readers use its low 32 bits), then the payload. Find walks the run as
// the cache always has; Ensure gives the payload of a block of a tag,
// appending the block at the end of the user data when there is none, so
// that blocks of other tags stay exactly where and as they are; EnsureLast
// keeps a block at the end (blocks behind it move up, unchanged).
// Stateless; thread-safety as the package given.
#ifndef TOVREL_EFFECTCACHE_USERDATABLOCK_H
#define TOVREL_EFFECTCACHE_USERDATABLOCK_H

#include <cstdint>

#include "tovrel/IDataStreamSet.h"

namespace Tovrel {

class UserDataBlock {
 public:
  static constexpr std::uint64_t kHeadSize = 12;
  static constexpr std::uint64_t kNotFound = ~std::uint64_t{0};

  // Offset of the first block head with `tag`, or kNotFound when the
  // blocks run past the end before it is found (or it is absent).
  static std::uint64_t Find(const std::uint8_t* userData, std::uint64_t size, std::uint32_t tag);
  // The payload length of the block whose head is at `at`.
  static std::uint64_t PayloadSize(const std::uint8_t* userData, std::uint64_t at);
  // The payload of the `tag` block, at least `payloadSize` bytes, appended
  // (zeroed) when absent; null when the user data cannot grow or the block
  // there is shorter. Marks the package modified.
  static std::uint8_t* Ensure(IDataStreamSet& package, std::uint32_t tag, std::uint64_t payloadSize);
  // The payload of the `tag` block of exactly `payloadSize` bytes as the
  // last block of the user data: a block of the tag elsewhere (or of
  // another size) is taken out, the blocks behind it moving up as they
  // are, and the block appended (zeroed). Null when the user data cannot
  // grow. Marks the package modified.
  static std::uint8_t* EnsureLast(IDataStreamSet& package, std::uint32_t tag, std::uint64_t payloadSize);
};

}  // namespace Tovrel

#endif
