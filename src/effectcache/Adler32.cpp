#include "effectcache/Adler32.h"

#include <zlib.h>

#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#define TOVREL_ADLER32_AVX2 1
#endif

namespace Tovrel {

namespace {

constexpr std::uint32_t kBase = 65521;  // the largest prime below 2^16
// Bytes of 32-byte blocks summed before the sums are reduced: the most
// below zlib's NMAX (5552), for which the 32-bit sums cannot overflow.
constexpr std::size_t kChunk = 5536;
constexpr std::size_t kBlock = 32;

#ifdef TOVREL_ADLER32_AVX2

__attribute__((target("avx2"))) std::uint32_t Sum8(__m256i v) {
  const __m128i both = _mm_add_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
  const __m128i pairs = _mm_add_epi32(both, _mm_shuffle_epi32(both, 0x4E));
  return static_cast<std::uint32_t>(_mm_cvtsi128_si32(_mm_add_epi32(pairs, _mm_shuffle_epi32(pairs, 0xB1))));
}

// Over whole blocks of one chunk: for bytes b[0..31] of a block,
// s1 += sum b[i] and s2 += 32 * s1 + sum (32 - i) * b[i].
__attribute__((target("avx2"))) void SumBlocks(std::uint32_t& s1, std::uint32_t& s2, const std::uint8_t* data,
                                               std::size_t blocks) {
  const __m256i weights = _mm256_setr_epi8(32, 31, 30, 29, 28, 27, 26, 25, 24, 23, 22, 21, 20, 19, 18, 17, 16, 15,
                                           14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1);
  const __m256i ones = _mm256_set1_epi16(1);
  const __m256i zero = _mm256_setzero_si256();
  __m256i byteSums = zero;      // sums of the bytes so far (s1 less its start)
  __m256i earlierSums = zero;   // byteSums before each block, added up
  __m256i weighted = zero;      // sum (32 - i) * b[i] over the blocks
  for (std::size_t k = 0; k < blocks; ++k) {
    const __m256i bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(data + k * kBlock));
    earlierSums = _mm256_add_epi32(earlierSums, byteSums);
    byteSums = _mm256_add_epi32(byteSums, _mm256_sad_epu8(bytes, zero));
    weighted = _mm256_add_epi32(weighted, _mm256_madd_epi16(_mm256_maddubs_epi16(bytes, weights), ones));
  }
  const std::uint64_t total2 = static_cast<std::uint64_t>(s2) + static_cast<std::uint64_t>(s1) * kBlock * blocks +
                               static_cast<std::uint64_t>(Sum8(earlierSums)) * kBlock + Sum8(weighted);
  s1 = static_cast<std::uint32_t>((s1 + static_cast<std::uint64_t>(Sum8(byteSums))) % kBase);
  s2 = static_cast<std::uint32_t>(total2 % kBase);
}

bool HasAvx2() {
  static const bool has = __builtin_cpu_supports("avx2");
  return has;
}

#endif

}  // namespace

std::uint32_t Adler32::UpdateScalar(std::uint32_t adler, const std::uint8_t* data, std::size_t size) {
  // zlib takes the length as a 32-bit count: longer inputs go in pieces.
  while (size > 0) {
    const auto n = static_cast<uInt>(size > 0x40000000u ? 0x40000000u : size);
    adler = static_cast<std::uint32_t>(adler32(adler, data, n));
    data += n;
    size -= n;
  }
  return adler;
}

bool Adler32::IsVectorised() {
#ifdef TOVREL_ADLER32_AVX2
  return HasAvx2();
#else
  return false;
#endif
}

std::uint32_t Adler32::Update(std::uint32_t adler, const std::uint8_t* data, std::size_t size) {
#ifdef TOVREL_ADLER32_AVX2
  if (HasAvx2() && size >= kBlock) {
    std::uint32_t s1 = adler & 0xFFFF;
    std::uint32_t s2 = adler >> 16;
    while (size >= kBlock) {
      const std::size_t blocks = (size < kChunk ? size : kChunk) / kBlock;
      SumBlocks(s1, s2, data, blocks);
      data += blocks * kBlock;
      size -= blocks * kBlock;
    }
    return UpdateScalar((s2 << 16) | s1, data, size);
  }
#endif
  return UpdateScalar(adler, data, size);
}

}  // namespace Tovrel
