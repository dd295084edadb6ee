// EffectCompression: the zlib form in which effects are stored.
//
// An effect is stored as one complete zlib stream (header, deflate data,
// Adler-32 trailer), exactly as zlib's compress2 writes it, and read back
// whole as uncompress reads it, decoded by libdeflate where that gives
// what uncompress gives. Compress writes into a buffer of CompressBound
// bytes. Safe from any thread: decompression keeps libdeflate's
// decompressor and a buffer per thread (LibdeflateInflater).
#ifndef TOVREL_EFFECTCACHE_EFFECTCOMPRESSION_H
#define TOVREL_EFFECTCACHE_EFFECTCOMPRESSION_H

#include <cstdint>

namespace Tovrel {

class EffectCompression {
 public:
  static constexpr int kOk = 0;
  static constexpr int kBufferError = -5;
  static constexpr int kMemoryError = -4;  // zlib's Z_MEM_ERROR: no memory, nothing wrong with the bytes

  // Bytes the compressed form of n bytes may take:
  // n + n/4096 + n/16384 + n/2^25 + 13.
  static std::uint64_t CompressBound(std::uint64_t n) {
    return n + (n >> 12) + (n >> 14) + (n >> 25) + 13;
  }

  // Level clamped to 0..9.
  static int ClampLevel(int level) { return level < 0 ? 0 : (level > 9 ? 9 : level); }

  // Compresses source into dest (destLen bytes of room; on success the
  // compressed size) at the given level (clamped). Returns a zlib status:
  // 0 on success, -5 when dest is too small or destLen does not fit in 32
  // bits, other zlib errors as zlib gives them.
  static int CompressEffect(std::uint8_t* dest, std::uint64_t& destLen, const std::uint8_t* source,
                            std::uint64_t sourceLen, int level);

  // Decompresses a whole zlib stream into dest (destLen bytes of room; on
  // success the decompressed size). Returns what zlib's uncompress returns,
  // with the same length and the same bytes in dest, those past the length
  // untouched: a stream that libdeflate decodes as zlib does (see
  // DeflateHeaderScan) is decoded and its Adler-32 checked by libdeflate;
  // every other input, and every stream libdeflate refuses, goes to
  // uncompress itself. kMemoryError comes from uncompress alone: without
  // memory for libdeflate the stream goes to uncompress.
  static int DecompressEffect(std::uint8_t* dest, std::uint64_t& destLen, const std::uint8_t* source,
                              std::uint64_t sourceLen);
  // The same status and length as DecompressEffect for every input, and on
  // kOk the same bytes, but decoded straight into dest, without a copy:
  // the bytes of dest past the length, and all of them when it fails, are
  // unspecified. For callers that throw a failed result away (a search).
  static int DecompressEffectDirect(std::uint8_t* dest, std::uint64_t& destLen, const std::uint8_t* source,
                                    std::uint64_t sourceLen);
};

}  // namespace Tovrel

#endif
