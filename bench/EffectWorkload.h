// EffectWorkload: what every store in the effect cache benchmark saves and
// looks up: 10,000 seeded effects of 2 KiB to 64 KiB (log-uniform), shaped
// like shader bytecode, with their names (wide for the library, UTF-8 for
// the peers), and the one compression every store uses (zlib level 2),
// decoded by zlib's uncompress or by libdeflate. One
// immutable instance, built on the first call of Get and owned by it, lives
// until the program ends; once built it may be read from any thread.
// Header-only, used by the effect cache benchmark and its peers.
#ifndef TOVREL_BENCH_EFFECTWORKLOAD_H
#define TOVREL_BENCH_EFFECTWORKLOAD_H

#include <libdeflate.h>
#include <zlib.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "support/EffectTesting.h"

namespace Tovrel {
namespace Bench {

class EffectWorkload {
 public:
  static constexpr std::size_t kEffects = 10000;
  static constexpr std::size_t kMaxEffectBytes = 64 * 1024;
  // The peers commit one transaction (or write batch) per this many bytes
  // of effects.
  static constexpr std::size_t kBatchBytes = 2u << 20;
  static constexpr int kLevel = 2;
  // The key-value peers store an effect as its size in these many
  // little-endian bytes, then its compressed bytes (SQLite keeps the size
  // in a column of its own).
  static constexpr std::size_t kSizeBytes = 4;

  static const EffectWorkload& Get() {
    static const EffectWorkload workload;
    return workload;
  }

  // Compresses `effect` into `out` after its first `offset` bytes, which are
  // kept; `out` ends where the compressed bytes end.
  static void Compress(const std::vector<unsigned char>& effect, std::vector<unsigned char>& out,
                       std::size_t offset) {
    uLongf length = compressBound(static_cast<uLong>(effect.size()));
    out.resize(offset + length);
    compress2(out.data() + offset, &length, effect.data(), static_cast<uLong>(effect.size()), kLevel);
    out.resize(offset + length);
  }

  // The value the key-value peers store for effect `i`, into `out`.
  void Pack(std::size_t i, std::vector<unsigned char>& out) const {
    Compress(effects[i], out, kSizeBytes);
    const auto size = static_cast<std::uint32_t>(effects[i].size());
    for (std::size_t b = 0; b < kSizeBytes; ++b) out[b] = static_cast<unsigned char>(size >> (8 * b));
  }

  // Decodes the zlib stream `compressed` (`size` bytes) of an effect of
  // `expected` bytes into `out`: with uncompress, or with libdeflate when
  // its decompressor is given. True when it decodes to exactly that many.
  static bool Decode(const unsigned char* compressed, std::size_t size, std::size_t expected, unsigned char* out,
                     libdeflate_decompressor* libdeflate) {
    if (libdeflate != nullptr) {
      return libdeflate_zlib_decompress(libdeflate, compressed, size, out, expected, nullptr) == LIBDEFLATE_SUCCESS;
    }
    uLongf length = static_cast<uLongf>(expected);
    return uncompress(out, &length, compressed, static_cast<uLong>(size)) == Z_OK && length == expected;
  }

  // Uncompresses a value Pack made into `out` (kMaxEffectBytes at least),
  // with uncompress or with libdeflate's decompressor when given; false
  // when it is not one.
  static bool Unpack(const unsigned char* value, std::size_t size, unsigned char* out,
                     libdeflate_decompressor* libdeflate = nullptr) {
    if (size < kSizeBytes) return false;
    std::uint32_t expected = 0;
    for (std::size_t b = 0; b < kSizeBytes; ++b) expected |= static_cast<std::uint32_t>(value[b]) << (8 * b);
    return expected <= kMaxEffectBytes && Decode(value + kSizeBytes, size - kSizeBytes, expected, out, libdeflate);
  }

  std::vector<std::wstring> names;
  std::vector<std::string> utf8Names;
  std::vector<std::vector<unsigned char>> effects;
  std::size_t totalBytes = 0;

 private:
  EffectWorkload() {
    std::mt19937 random(2026);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    for (std::size_t i = 0; i < kEffects; ++i) {
      const auto size = static_cast<std::size_t>(std::exp(std::log(2048.0) + unit(random) * std::log(32.0)));
      names.push_back(L"shaders/material" + std::to_wstring(i) + L".fx");
      utf8Names.push_back("shaders/material" + std::to_string(i) + ".fx");
      effects.push_back(Testing::EffectTesting::Bytes(static_cast<std::uint32_t>(i), size, true));
      totalBytes += size;
    }
  }
};

}  // namespace Bench
}  // namespace Tovrel

#endif
