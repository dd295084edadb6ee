#include "support/DeflateWriter.h"

#include <algorithm>

namespace Tovrel {
namespace Testing {

void DeflateWriter::Bits(std::uint32_t value, unsigned count) {
  for (unsigned i = 0; i < count; ++i) {
    if (used_ == 8) {
      bytes_.push_back(0);
      used_ = 0;
    }
    bytes_.back() = static_cast<std::uint8_t>(bytes_.back() | (((value >> i) & 1u) << used_));
    ++used_;
  }
}

void DeflateWriter::Counts(unsigned literalLengthCodes, unsigned distanceCodes, unsigned precodeLengths) {
  Bits(literalLengthCodes - 257, 5);
  Bits(distanceCodes - 1, 5);
  Bits(precodeLengths - 4, 4);
}

void DeflateWriter::PrecodeLengths(const std::vector<unsigned>& lengths, unsigned count) {
  static const unsigned kOrder[19] = {16, 17, 18, 0, 8, 7, 9, 6, 10, 5, 11, 4, 12, 3, 13, 2, 14, 1, 15};
  for (unsigned i = 0; i < count; ++i) Bits(lengths[kOrder[i]], 3);
}

void DeflateWriter::Symbol(const std::vector<unsigned>& lengths, unsigned symbol) {
  // Canonical codes: shorter codewords first, equal lengths in symbol order.
  unsigned counts[16] = {};
  for (unsigned length : lengths) ++counts[length];
  counts[0] = 0;
  unsigned next[16] = {};
  unsigned code = 0;
  for (unsigned length = 1; length < 16; ++length) {
    code = (code + counts[length - 1]) << 1;
    next[length] = code;
  }
  for (unsigned s = 0; s < symbol; ++s) {
    if (lengths[s] == lengths[symbol]) ++next[lengths[s]];
  }
  const unsigned length = lengths[symbol];
  for (unsigned b = 0; b < length; ++b) Bits((next[length] >> (length - 1 - b)) & 1u, 1);
}

void DeflateWriter::Zeros(const std::vector<unsigned>& precode, unsigned count) {
  if (count <= 10) {
    Symbol(precode, 17);
    Bits(count - 3, 3);
  } else {
    Symbol(precode, 18);
    Bits(count - 11, 7);
  }
}

void DeflateWriter::AlignToByte() { used_ = 8; }

std::vector<unsigned> DeflateWriter::FixedLiteralLengths() {
  std::vector<unsigned> lengths(288, 8);
  for (unsigned s = 144; s < 256; ++s) lengths[s] = 9;
  for (unsigned s = 256; s < 280; ++s) lengths[s] = 7;
  return lengths;
}

std::vector<unsigned> DeflateWriter::FixedDistances() { return std::vector<unsigned>(32, 5); }

std::vector<unsigned> DeflateWriter::PlainPrecode() {
  std::vector<unsigned> precode(19, 0);
  for (unsigned s = 0; s < 16; ++s) precode[s] = 4;
  return precode;
}

void DeflateWriter::PlainDynamicHeader(const std::vector<unsigned>& literalLengths,
                                       const std::vector<unsigned>& distances) {
  const std::vector<unsigned> precode = PlainPrecode();
  Counts(static_cast<unsigned>(literalLengths.size()), static_cast<unsigned>(distances.size()), 19);
  PrecodeLengths(precode, 19);
  for (unsigned length : literalLengths) Symbol(precode, length);
  for (unsigned length : distances) Symbol(precode, length);
}

std::vector<std::uint8_t> DeflateWriter::ZlibStream(std::uint32_t adler) const {
  std::vector<std::uint8_t> stream(bytes_.size() + 6);
  stream[0] = 0x78;
  stream[1] = 0x9C;
  std::copy(bytes_.begin(), bytes_.end(), stream.begin() + 2);
  for (std::size_t i = 0; i < 4; ++i) stream[bytes_.size() + 2 + i] = static_cast<std::uint8_t>(adler >> (24 - 8 * i));
  return stream;
}

}  // namespace Testing
}  // namespace Tovrel
