// Adler32: the Adler-32 checksum that ends every zlib stream, computed as
// zlib's adler32() computes it, 32 bytes at a time with AVX2 where the
// processor has it (zlib's own loop takes a byte at a time, which is a
// tenth of a search's time). Stateless; safe from any thread.
#ifndef TOVREL_EFFECTCACHE_ADLER32_H
#define TOVREL_EFFECTCACHE_ADLER32_H

#include <cstddef>
#include <cstdint>

namespace Tovrel {

class Adler32 {
 public:
  // The checksum of no bytes.
  static constexpr std::uint32_t kStart = 1;

  // `adler` continued over `size` bytes at `data`.
  static std::uint32_t Update(std::uint32_t adler, const std::uint8_t* data, std::size_t size);
  // The same with zlib's own loop: what Update must equal.
  static std::uint32_t UpdateScalar(std::uint32_t adler, const std::uint8_t* data, std::size_t size);
  // Whether Update uses the vector loop on this processor.
  static bool IsVectorised();
};

}  // namespace Tovrel

#endif
