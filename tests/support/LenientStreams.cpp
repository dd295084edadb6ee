#include "support/LenientStreams.h"

#include <libdeflate.h>

#include "support/DeflateWriter.h"

namespace Tovrel {
namespace Testing {

namespace {

constexpr unsigned kStored = 0, kFixed = 1, kDynamic = 2;
constexpr unsigned kEndOfBlock = 256;
constexpr unsigned kLength3 = 257;  // a match of three bytes

// A stored block of `size` bytes of 'x', not the last: history for the
// long distances that follow.
void History(DeflateWriter& out, unsigned size) {
  out.BlockHeader(false, kStored);
  out.AlignToByte();
  out.Bits(size, 16);
  out.Bits(~size & 0xFFFFu, 16);
  for (unsigned i = 0; i < size; ++i) out.Bits('x', 8);
}

// A fixed-code last block: 'a', a match (length symbol, distance symbol
// and the distance's extra bits), the end.
std::vector<std::uint8_t> FixedMatch(unsigned lengthSymbol, unsigned distanceSymbol, unsigned extraBits,
                                     unsigned history) {
  DeflateWriter out;
  if (history > 0) History(out, history);
  const auto literals = DeflateWriter::FixedLiteralLengths();
  const auto distances = DeflateWriter::FixedDistances();
  out.BlockHeader(true, kFixed);
  out.Symbol(literals, 'a');
  out.Symbol(literals, lengthSymbol);
  out.Symbol(distances, distanceSymbol);
  out.Bits(0, extraBits);
  out.Symbol(literals, kEndOfBlock);
  return out.Data();
}

// Literal/length lengths: 'a' 1 bit, the end and a three-byte match 2
// bits each, in a table of `codes` entries (with more lengths when given).
std::vector<unsigned> SmallLiterals(unsigned codes) {
  std::vector<unsigned> lengths(codes, 0);
  lengths['a'] = 1;
  lengths[kEndOfBlock] = 2;
  lengths[kLength3] = 2;
  return lengths;
}

// A dynamic last block with these codes: 'a', then a three-byte match at
// distance symbol 0 written with `distanceBits` (1 bit each), then the end.
std::vector<std::uint8_t> DynamicMatch(const std::vector<unsigned>& literals, const std::vector<unsigned>& distances,
                                       unsigned distanceBit) {
  DeflateWriter out;
  out.BlockHeader(true, kDynamic);
  out.PlainDynamicHeader(literals, distances);
  out.Symbol(literals, 'a');
  out.Symbol(literals, kLength3);
  out.Bits(distanceBit, 1);
  out.Symbol(literals, kEndOfBlock);
  return out.Data();
}

}  // namespace

std::vector<std::uint8_t> LenientStreams::Wrap(const std::vector<std::uint8_t>& deflate,
                                               std::vector<std::uint8_t>* decoded) {
  std::vector<std::uint8_t> out(1 << 16);
  std::size_t produced = 0;
  libdeflate_decompressor* d = libdeflate_alloc_decompressor();
  if (d == nullptr ||
      libdeflate_deflate_decompress(d, deflate.data(), deflate.size(), out.data(), out.size(), &produced) !=
          LIBDEFLATE_SUCCESS) {
    produced = 0;
  }
  libdeflate_free_decompressor(d);
  out.resize(produced);
  DeflateWriter wrapper;
  for (std::uint8_t b : deflate) wrapper.Bits(b, 8);
  if (decoded != nullptr) *decoded = out;
  return wrapper.ZlibStream(static_cast<std::uint32_t>(libdeflate_adler32(1, out.data(), out.size())));
}

std::vector<LenientStreams::Stream> LenientStreams::All() {
  std::vector<std::pair<std::string, std::vector<std::uint8_t>>> raw;
  // Fixed codes hold symbols the format never gives a meaning: libdeflate
  // reads 286 and 287 as a match of 258, 30 and 31 as distance 29.
  raw.emplace_back("fixed literal/length symbol 286", FixedMatch(286, 0, 0, 0));
  raw.emplace_back("fixed literal/length symbol 287", FixedMatch(287, 0, 0, 0));
  raw.emplace_back("fixed distance symbol 30", FixedMatch(kLength3, 30, 13, 30000));
  raw.emplace_back("fixed distance symbol 31", FixedMatch(kLength3, 31, 13, 30000));
  const std::vector<unsigned> twoDistances{1, 1};
  // Headers announcing more codes than zlib allows, the extra ones used or not.
  raw.emplace_back("287 literal/length codes", DynamicMatch(SmallLiterals(287), twoDistances, 0));
  raw.emplace_back("288 literal/length codes", DynamicMatch(SmallLiterals(288), twoDistances, 0));
  {
    auto literals = SmallLiterals(288);
    literals[kLength3] = 0;
    literals[286] = 2;  // a match of 258 in libdeflate
    raw.emplace_back("literal/length symbol 286 in a dynamic code", DynamicMatch(literals, twoDistances, 0));
  }
  {
    std::vector<unsigned> distances(31, 0);
    distances[0] = 1;
    distances[30] = 1;
    raw.emplace_back("31 distance codes", DynamicMatch(SmallLiterals(258), distances, 0));
    distances.push_back(0);
    raw.emplace_back("32 distance codes", DynamicMatch(SmallLiterals(258), distances, 0));
  }
  // Codes of one codeword: zlib takes only the codeword 0.
  raw.emplace_back("second codeword of a one-codeword distance code",
                   DynamicMatch(SmallLiterals(258), std::vector<unsigned>{1}, 1));
  {
    DeflateWriter out;
    std::vector<unsigned> literals(257, 0);
    literals[kEndOfBlock] = 1;
    out.BlockHeader(true, kDynamic);
    out.PlainDynamicHeader(literals, twoDistances);
    out.Bits(1, 1);  // the end, by the codeword zlib does not have
    raw.emplace_back("second codeword of a one-codeword literal/length code", out.Data());
  }
  // An empty distance code, then a match: libdeflate takes distance 1.
  raw.emplace_back("distance from an empty distance code", DynamicMatch(SmallLiterals(258), {0}, 0));
  {
    // Zeros repeated past the announced lengths: a precode of 0, 1, 2 and
    // the three repeats, then 97 zeros, 'a', 158 zeros, the end, the match,
    // two one-bit distances, and ten zeros where one was left.
    std::vector<unsigned> precode(19, 0);
    precode[0] = 2;
    precode[1] = 3;
    precode[2] = 3;
    precode[16] = 3;
    precode[17] = 3;
    precode[18] = 2;
    DeflateWriter out;
    out.BlockHeader(true, kDynamic);
    out.Counts(258, 3, 19);
    out.PrecodeLengths(precode, 19);
    out.Zeros(precode, 97);
    out.Symbol(precode, 1);
    out.Zeros(precode, 138);
    out.Zeros(precode, 20);
    for (unsigned length : {2, 2, 1, 1}) out.Symbol(precode, length);
    out.Zeros(precode, 10);
    const auto literals = SmallLiterals(258);
    out.Symbol(literals, 'a');
    out.Symbol(literals, kLength3);
    out.Bits(0, 1);
    out.Symbol(literals, kEndOfBlock);
    raw.emplace_back("code length repeat past the announced lengths", out.Data());
  }
  std::vector<Stream> streams;
  for (auto& r : raw) {
    Stream s;
    s.name = r.first;
    s.bytes = Wrap(r.second, &s.decoded);
    streams.push_back(s);
  }
  return streams;
}

}  // namespace Testing
}  // namespace Tovrel
