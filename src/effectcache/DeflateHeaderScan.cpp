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
// them, with zeros for bits past the end. Eight bytes are read at once
// where there are eight: a header is read a few bits at a time, hundreds
// of times per effect.
unsigned Peek(const std::uint8_t* data, std::size_t size, std::uint64_t at, unsigned count) {
  const std::size_t byte = static_cast<std::size_t>(at >> 3);
  std::uint64_t window = 0;
  if (byte + 8 <= size) {
    for (std::size_t i = 0; i < 8; ++i) window |= static_cast<std::uint64_t>(data[byte + i]) << (8 * i);
  } else {
    for (std::size_t i = 0; byte + i < size; ++i) window |= static_cast<std::uint64_t>(data[byte + i]) << (8 * i);
  }
  return static_cast<unsigned>(window >> (at & 7)) & ((1u << count) - 1);
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
// A table rather than a test per length: whether a symbol has a codeword
// is as good as random, and a branch on it would be mispredicted half the
// time, hundreds of times per header.
bool Complete(const std::uint8_t* lengths, unsigned count) {
  static constexpr std::uint32_t kShare[kMaxCodeBits + 1] = {
      0,       1u << 14, 1u << 13, 1u << 12, 1u << 11, 1u << 10, 1u << 9, 1u << 8,
      1u << 7, 1u << 6,  1u << 5,  1u << 4,  1u << 3,  1u << 2,  1u << 1, 1u << 0};
  std::uint32_t used = 0;
  for (unsigned i = 0; i < count; ++i) used += kShare[lengths[i]];
  return used == 1u << kMaxCodeBits;
}

// The codewords of a complete precode as a table of the next seven bits
// (taken least significant first): each entry its symbol, and its length
// in bits times 256.
void PrecodeTable(const std::uint8_t* lengths, std::uint16_t* table) {
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
      table[index] = static_cast<std::uint16_t>(s | length << 8);
    }
  }
}

// Reads a dynamic block's header from bit `at` (after its first three
// bits), as zlib's inflate does, and tells whether zlib accepts it with
// complete codes. The bits are held in a word (zeros past the end, where
// the count of bits taken tells that the header ran out): a code length's
// codeword decides where the next starts, so that is all the work waits on.
bool DynamicHeaderStrict(const std::uint8_t* data, std::size_t size, std::uint64_t at) {
  const std::uint64_t end = static_cast<std::uint64_t>(size) * 8;
  std::size_t next = static_cast<std::size_t>(at >> 3);
  std::uint64_t word = 0;
  unsigned held = 0;
  const auto refill = [&] {
    for (; held <= 56; held += 8, ++next) word |= static_cast<std::uint64_t>(next < size ? data[next] : 0) << held;
  };
  const auto take = [&](unsigned count) {
    const unsigned value = static_cast<unsigned>(word) & ((1u << count) - 1);
    word >>= count;
    held -= count;
    at += count;
    return value;
  };
  refill();
  word >>= at & 7;
  held -= static_cast<unsigned>(at & 7);

  const unsigned literalLengthCodes = 257 + take(5);
  const unsigned distanceCodes = 1 + take(5);
  const unsigned precodeLengths = 4 + take(4);
  if (literalLengthCodes > kMaxLiteralLengthCodes || distanceCodes > kMaxDistanceCodes) return false;
  std::uint8_t precode[kPrecodeSymbols] = {};
  for (unsigned i = 0; i < precodeLengths; ++i) {
    if (held < 3) refill();
    precode[kPrecodeOrder[i]] = static_cast<std::uint8_t>(take(3));
  }
  if (!Complete(precode, kPrecodeSymbols)) return false;
  std::uint16_t table[1u << kMaxPrecodeBits];
  PrecodeTable(precode, table);

  const unsigned total = literalLengthCodes + distanceCodes;
  std::uint8_t lengths[kMaxLiteralLengthCodes + kMaxDistanceCodes];
  unsigned have = 0;
  while (have < total) {
    if (held < kMaxPrecodeBits + 7) refill();
    const unsigned entry = table[static_cast<unsigned>(word) & ((1u << kMaxPrecodeBits) - 1)];
    take(entry >> 8);
    const unsigned symbol = entry & 0xFF;
    if (symbol < 16) {
      lengths[have++] = static_cast<std::uint8_t>(symbol);
      continue;
    }
    // 16 repeats the length before 3 to 6 times, 17 and 18 give 3 to 10
    // and 11 to 138 zeros; zlib refuses a repeat with nothing before it
    // and one past the lengths the header announced.
    unsigned repeat = 0;
    std::uint8_t value = 0;
    if (symbol == 16) {
      if (have == 0) return false;
      value = lengths[have - 1];
      repeat = 3 + take(2);
    } else if (symbol == 17) {
      repeat = 3 + take(3);
    } else {
      repeat = 11 + take(7);
    }
    if (repeat > total - have) return false;
    while (repeat-- > 0) lengths[have++] = value;
  }
  return at <= end && lengths[kEndOfBlock] != 0 && Complete(lengths, literalLengthCodes) &&
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
