// DeflateWriter: writes deflate data bit by bit, for tests that need
// streams no compressor writes: codes of any lengths (incomplete, of one
// codeword, empty), symbols a code should not hold, repeats past the
// lengths a header announced. Nothing is checked; the caller says every
// field. Single-threaded.
#ifndef TOVREL_TESTS_DEFLATEWRITER_H
#define TOVREL_TESTS_DEFLATEWRITER_H

#include <cstdint>
#include <vector>

namespace Tovrel {
namespace Testing {

class DeflateWriter {
 public:
  // `count` bits of `value`, least significant first (header fields,
  // extra bits).
  void Bits(std::uint32_t value, unsigned count);
  // A block header: BFINAL and BTYPE (0 stored, 1 fixed, 2 dynamic).
  void BlockHeader(bool last, unsigned type) {
    Bits(last ? 1 : 0, 1);
    Bits(type, 2);
  }
  // A dynamic header's counts, as the numbers of codes (257..288, 1..32,
  // 4..19).
  void Counts(unsigned literalLengthCodes, unsigned distanceCodes, unsigned precodeLengths);
  // The first `count` precode lengths, in the order the format lists them
  // (`lengths` indexed by precode symbol).
  void PrecodeLengths(const std::vector<unsigned>& lengths, unsigned count);
  // The canonical codeword of `symbol` in the code of these lengths, most
  // significant bit first.
  void Symbol(const std::vector<unsigned>& lengths, unsigned symbol);
  // A run of `count` zero code lengths (3 to 138) in a dynamic header: the
  // precode symbol 17 (up to 10) or 18 with its count.
  void Zeros(const std::vector<unsigned>& precode, unsigned count);
  // Zero bits up to the next byte.
  void AlignToByte();
  // The lengths of the fixed literal/length and distance codes.
  static std::vector<unsigned> FixedLiteralLengths();
  static std::vector<unsigned> FixedDistances();
  // A precode in which symbols 0 to 15 have four-bit codewords, and a
  // dynamic header (after BlockHeader) that sends these code lengths
  // with it, one precode symbol each.
  static std::vector<unsigned> PlainPrecode();
  void PlainDynamicHeader(const std::vector<unsigned>& literalLengths, const std::vector<unsigned>& distances);

  const std::vector<std::uint8_t>& Data() const { return bytes_; }
  // The data as a zlib stream: 0x78 0x9C, the data, then `adler`
  // big-endian.
  std::vector<std::uint8_t> ZlibStream(std::uint32_t adler) const;

 private:
  std::vector<std::uint8_t> bytes_;
  unsigned used_ = 8;  // bits used in the last byte
};

}  // namespace Testing
}  // namespace Tovrel

#endif
