#include "effectcache/DeflateHeaderScan.h"

namespace Tovrel {

namespace {

constexpr unsigned kStoredBlock = 0;
constexpr unsigned kDynamicBlock = 2;
// The most literal/length and distance codes a dynamic header may announce
// for zlib (the format's five bits would allow 288 and 32).
constexpr unsigned kMaxLiteralLengthCodes = 286;
constexpr unsigned kMaxDistanceCodes = 30;
constexpr unsigned kEndOfBlock = 256;
constexpr unsigned kPrecodeSymbols = 19;
constexpr unsigned kMaxPrecodeBits = 7;
constexpr unsigned kMaxCodeBits = 15;
// The order in which a dynamic header lists the precode's lengths.
constexpr std::uint8_t kPrecodeOrder[kPrecodeSymbols] = {16, 17, 18, 0, 8,  7, 9,  6, 10, 5,
                                                         11, 4,  12, 3, 13, 2, 14, 1, 15};

// Up to 16 bits from bit `at` on, least significant first as deflate packs
// them, with zeros for bits past the end.
unsigned Peek(const std::uint8_t* data, std::size_t size, std::uint64_t at, unsigned count) {
  const std::size_t byte = static_cast<std::size_t>(at >> 3);
  std::uint32_t window = 0;
  for (std::size_t i = 0; i < 3 && byte + i < size; ++i) window |= static_cast<std::uint32_t>(data[byte + i]) << (8 * i);
  return (window >> (at & 7)) & ((1u << count) - 1);
}

// Takes `count` bits (at most 16) at `at` into `value`; false, taking
// nothing, when they run past `size` bytes.
bool Take(const std::uint8_t* data, std::size_t size, std::uint64_t& at, unsigned count, unsigned& value) {
  if (at + count > static_cast<std::uint64_t>(size) * 8) return false;
  value = Peek(data, size, at, count);
  at += count;
  return true;
}

// Whether code lengths (0 for a symbol without a codeword, at most 15)
// make a complete prefix code: their codewords fill the code space, no
// more and no less.
bool Complete(const std::uint8_t* lengths, unsigned count) {
  std::uint32_t used = 0;
  for (unsigned i = 0; i < count; ++i) {
    if (lengths[i] != 0) used += 1u << (kMaxCodeBits - lengths[i]);
  }
  return used == 1u << kMaxCodeBits;
}

// The codewords of a complete precode as a table of the next seven bits
// (taken least significant first): each entry's symbol and length.
void PrecodeTable(const std::uint8_t* lengths, std::uint8_t* symbols, std::uint8_t* bits) {
  unsigned counts[kMaxPrecodeBits + 1] = {};
  for (unsigned s = 0; s < kPrecodeSymbols; ++s) ++counts[lengths[s]];
  counts[0] = 0;
  unsigned next[kMaxPrecodeBits + 1] = {};
  unsigned code = 0;
  for (unsigned length = 1; length <= kMaxPrecodeBits; ++length) {
    code = (code + counts[length - 1]) << 1;
    next[length] = code;
  }
  for (unsigned s = 0; s < kPrecodeSymbols; ++s) {
    const unsigned length = lengths[s];
    if (length == 0) continue;
    // Deflate sends a codeword's most significant bit first.
    const unsigned codeword = next[length]++;
    unsigned reversed = 0;
    for (unsigned b = 0; b < length; ++b) reversed |= ((codeword >> b) & 1u) << (length - 1 - b);
    for (unsigned index = reversed; index < (1u << kMaxPrecodeBits); index += 1u << length) {
      symbols[index] = static_cast<std::uint8_t>(s);
      bits[index] = static_cast<std::uint8_t>(length);
    }
  }
}

// Reads a dynamic block's header after its first three bits, as zlib's
// inflate does, and tells whether zlib accepts it with complete codes.
bool DynamicHeaderStrict(const std::uint8_t* data, std::size_t size, std::uint64_t& at) {
  unsigned literalLengthCodes = 0, distanceCodes = 0, precodeLengths = 0;
  if (!Take(data, size, at, 5, literalLengthCodes) || !Take(data, size, at, 5, distanceCodes) ||
      !Take(data, size, at, 4, precodeLengths)) {
    return false;
  }
  literalLengthCodes += 257;
  distanceCodes += 1;
  precodeLengths += 4;
  if (literalLengthCodes > kMaxLiteralLengthCodes || distanceCodes > kMaxDistanceCodes) return false;

  std::uint8_t precode[kPrecodeSymbols] = {};
  for (unsigned i = 0; i < precodeLengths; ++i) {
    unsigned length = 0;
    if (!Take(data, size, at, 3, length)) return false;
    precode[kPrecodeOrder[i]] = static_cast<std::uint8_t>(length);
  }
  if (!Complete(precode, kPrecodeSymbols)) return false;
  std::uint8_t symbols[1u << kMaxPrecodeBits];
  std::uint8_t bits[1u << kMaxPrecodeBits];
  PrecodeTable(precode, symbols, bits);

  const unsigned total = literalLengthCodes + distanceCodes;
  std::uint8_t lengths[kMaxLiteralLengthCodes + kMaxDistanceCodes];
  const std::uint64_t end = static_cast<std::uint64_t>(size) * 8;
  unsigned have = 0;
  while (have < total) {
    const unsigned index = Peek(data, size, at, kMaxPrecodeBits);
    if (at + bits[index] > end) return false;
    at += bits[index];
    const unsigned symbol = symbols[index];
    if (symbol < 16) {
      lengths[have++] = static_cast<std::uint8_t>(symbol);
      continue;
    }
    // 16 repeats the length before 3 to 6 times, 17 and 18 give 3 to 10
    // and 11 to 138 zeros; zlib refuses a repeat with nothing before it
    // and one past the lengths the header announced.
    unsigned extra = 0, repeat = 0;
    std::uint8_t value = 0;
    if (symbol == 16) {
      if (have == 0 || !Take(data, size, at, 2, extra)) return false;
      value = lengths[have - 1];
      repeat = 3 + extra;
    } else if (symbol == 17) {
      if (!Take(data, size, at, 3, extra)) return false;
      repeat = 3 + extra;
    } else {
      if (!Take(data, size, at, 7, extra)) return false;
      repeat = 11 + extra;
    }
    if (repeat > total - have) return false;
    while (repeat-- > 0) lengths[have++] = value;
  }
  return lengths[kEndOfBlock] != 0 && Complete(lengths, literalLengthCodes) &&
         Complete(lengths + literalLengthCodes, distanceCodes);
}

}  // namespace

bool DeflateHeaderScan::Strict(const std::uint8_t* data, std::size_t size) {
  std::uint64_t at = 0;
  for (;;) {
    unsigned last = 0, type = 0;
    if (!Take(data, size, at, 1, last) || !Take(data, size, at, 2, type)) return false;
    if (type == kDynamicBlock) return last == 1 && DynamicHeaderStrict(data, size, at);
    if (type != kStoredBlock) return false;
    // A stored block: to the next byte, its length and the length's
    // complement, then that many bytes.
    at = (at + 7) & ~std::uint64_t{7};
    unsigned length = 0, complement = 0;
    if (!Take(data, size, at, 16, length) || !Take(data, size, at, 16, complement) ||
        length != (~complement & 0xFFFFu)) {
      return false;
    }
    at += std::uint64_t{length} * 8;
    if (at > static_cast<std::uint64_t>(size) * 8) return false;
    if (last == 1) return true;
  }
}

}  // namespace Tovrel
