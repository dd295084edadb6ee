#include "effectcache/DeflateHeaderScan.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <random>
#include <vector>

#include "support/DeflateWriter.h"
#include "support/LenientStreams.h"

namespace Tovrel {
namespace {

using Testing::DeflateWriter;

// The deflate data of compress2's stream of `input` at `level`.
std::vector<std::uint8_t> DeflateOf(const std::vector<std::uint8_t>& input, int level) {
  uLongf length = compressBound(static_cast<uLong>(input.size()));
  std::vector<std::uint8_t> stream(length);
  EXPECT_EQ(compress2(stream.data(), &length, input.data(), static_cast<uLong>(input.size()), level), Z_OK);
  return std::vector<std::uint8_t>(stream.begin() + 2, stream.begin() + static_cast<std::ptrdiff_t>(length) - 4);
}

bool Strict(const std::vector<std::uint8_t>& deflate) {
  return DeflateHeaderScan::Strict(deflate.data(), deflate.size());
}

std::vector<std::uint8_t> Compressible(std::size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::vector<std::uint8_t> bytes(size);
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<std::uint8_t>(i % 3 == 0 ? random() : i % 11);
  return bytes;
}

TEST(DeflateHeaderScanTest, TakesWhatCompress2WritesInOneDynamicBlockAtEveryLevel) {
  const auto input = Compressible(20000, 1);
  for (int level = 1; level <= 9; ++level) EXPECT_TRUE(Strict(DeflateOf(input, level))) << level;
}

TEST(DeflateHeaderScanTest, TakesStoredBlocksWhateverTheirNumber) {
  std::mt19937 random(2);
  std::vector<std::uint8_t> noise(200000);
  for (auto& b : noise) b = static_cast<std::uint8_t>(random());
  EXPECT_TRUE(Strict(DeflateOf(noise, 0)));  // four stored blocks
  EXPECT_TRUE(Strict(DeflateOf(std::vector<std::uint8_t>(), 0)));
  EXPECT_TRUE(Strict(DeflateOf(std::vector<std::uint8_t>(10, 1), 0)));
}

TEST(DeflateHeaderScanTest, LeavesFixedCodesAndDynamicBlocksBeforeTheLast) {
  EXPECT_FALSE(Strict(DeflateOf(std::vector<std::uint8_t>(), 6)));  // one empty fixed-code block
  EXPECT_FALSE(Strict(DeflateOf(std::vector<std::uint8_t>{'a', 'b', 'c'}, 6)));
  // More than 16383 literals and matches: a dynamic block before the last.
  std::mt19937 random(3);
  std::vector<std::uint8_t> text(200000);
  for (auto& b : text) b = static_cast<std::uint8_t>('a' + random() % 20);
  EXPECT_FALSE(Strict(DeflateOf(text, 6)));
}

TEST(DeflateHeaderScanTest, RefusesEveryStreamLibdeflateTakesAndZlibRefuses) {
  for (const auto& stream : Testing::LenientStreams::All()) {
    EXPECT_FALSE(DeflateHeaderScan::Strict(stream.bytes.data() + 2, stream.bytes.size() - 6)) << stream.name;
  }
}

// A dynamic last block with the plain precode and these lengths, then the
// end of block in its code.
std::vector<std::uint8_t> Dynamic(const std::vector<unsigned>& literals, const std::vector<unsigned>& distances) {
  DeflateWriter out;
  out.BlockHeader(true, 2);
  out.PlainDynamicHeader(literals, distances);
  out.Symbol(literals, 256);
  return out.Data();
}

std::vector<unsigned> CompleteLiterals(unsigned count) {
  std::vector<unsigned> lengths(count, 0);
  lengths['a'] = 1;
  lengths[256] = 2;
  lengths[257] = 2;
  return lengths;
}

TEST(DeflateHeaderScanTest, ChecksEachRuleOfADynamicHeader) {
  const std::vector<unsigned> two{1, 1};
  EXPECT_TRUE(Strict(Dynamic(CompleteLiterals(258), two)));
  {
    std::vector<unsigned> distances(30, 0);
    distances[0] = distances[29] = 1;
    EXPECT_TRUE(Strict(Dynamic(CompleteLiterals(286), distances)));
  }
  EXPECT_FALSE(Strict(Dynamic(CompleteLiterals(287), two)));
  {
    std::vector<unsigned> distances(31, 0);
    distances[0] = distances[1] = 1;
    EXPECT_FALSE(Strict(Dynamic(CompleteLiterals(258), distances)));
  }
  auto incomplete = CompleteLiterals(258);
  incomplete[257] = 3;
  EXPECT_FALSE(Strict(Dynamic(incomplete, two)));
  auto oversubscribed = CompleteLiterals(258);
  oversubscribed['b'] = 2;
  EXPECT_FALSE(Strict(Dynamic(oversubscribed, two)));
  auto noEnd = CompleteLiterals(258);
  noEnd[256] = 0;
  noEnd['b'] = 2;
  EXPECT_FALSE(Strict(Dynamic(noEnd, two)));
  std::vector<unsigned> onlyEnd(257, 0);
  onlyEnd[256] = 1;
  EXPECT_FALSE(Strict(Dynamic(onlyEnd, two)));                                // a code of one codeword
  EXPECT_FALSE(Strict(Dynamic(CompleteLiterals(258), std::vector<unsigned>{1})));  // a distance code of one
  EXPECT_FALSE(Strict(Dynamic(CompleteLiterals(258), std::vector<unsigned>{0})));  // no distance code
  EXPECT_FALSE(Strict(Dynamic(CompleteLiterals(258), std::vector<unsigned>{1, 2})));
  // The same block, but not the last.
  DeflateWriter notLast;
  notLast.BlockHeader(false, 2);
  notLast.PlainDynamicHeader(CompleteLiterals(258), two);
  EXPECT_FALSE(Strict(notLast.Data()));
}

TEST(DeflateHeaderScanTest, ChecksThePrecodeAndItsRepeats) {
  // Precode: 0 and 1 two bits, 16 and 18 two bits.
  std::vector<unsigned> precode(19, 0);
  precode[0] = precode[1] = precode[16] = precode[18] = 2;
  const auto header = [&](bool repeatFirst, unsigned lastZeros) {
    DeflateWriter out;
    out.BlockHeader(true, 2);
    out.Counts(257, 2, 19);
    out.PrecodeLengths(precode, 19);
    if (repeatFirst) {
      out.Symbol(precode, 16);
      out.Bits(0, 2);
    }
    // 'a' and the end one bit each: 97 zeros, 1, 138 + 20 zeros, 1, then
    // the distances 1, 1, or 1 and `lastZeros` zeros by one repeat.
    out.Zeros(precode, 97 - (repeatFirst ? 3 : 0));
    out.Symbol(precode, 1);
    out.Zeros(precode, 138);
    out.Zeros(precode, 20);
    out.Symbol(precode, 1);
    out.Symbol(precode, 1);
    if (lastZeros > 0) {
      out.Zeros(precode, lastZeros);
    } else {
      out.Symbol(precode, 1);
    }
    return out.Data();
  };
  EXPECT_TRUE(Strict(header(false, 0)));
  EXPECT_FALSE(Strict(header(true, 0)));   // 16 with no length before it
  EXPECT_FALSE(Strict(header(false, 11)));  // zeros past the second distance length
  // A precode of one codeword, and an incomplete one.
  for (const auto& odd : {std::vector<unsigned>{1}, std::vector<unsigned>{2, 2, 2}}) {
    std::vector<unsigned> lengths(19, 0);
    for (std::size_t i = 0; i < odd.size(); ++i) lengths[i] = odd[i];
    DeflateWriter out;
    out.BlockHeader(true, 2);
    out.Counts(257, 1, 19);
    out.PrecodeLengths(lengths, 19);
    for (int i = 0; i < 40; ++i) out.Bits(0, 8);
    EXPECT_FALSE(Strict(out.Data())) << odd.size();
  }
}

TEST(DeflateHeaderScanTest, RefusesHeadersCutShortAndBadStoredLengths) {
  const auto whole = DeflateOf(Compressible(5000, 4), 2);
  ASSERT_TRUE(Strict(whole));
  // The header ends somewhere in the first hundred bytes: cut before it.
  std::size_t headerEnd = 0;
  for (std::size_t cut = 0; cut <= 100 && cut <= whole.size(); ++cut) {
    if (Strict(std::vector<std::uint8_t>(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(cut)))) {
      headerEnd = cut;
      break;
    }
  }
  EXPECT_GT(headerEnd, 10u);
  DeflateWriter stored;
  stored.BlockHeader(true, 0);
  stored.AlignToByte();
  stored.Bits(3, 16);
  stored.Bits(~3u & 0xFFFF, 16);
  stored.Bits(0x616263, 24);
  EXPECT_TRUE(Strict(stored.Data()));
  auto cut = stored.Data();
  cut.pop_back();
  EXPECT_FALSE(Strict(cut));
  auto badComplement = stored.Data();
  badComplement[3] ^= 1;
  EXPECT_FALSE(Strict(badComplement));
  auto reserved = stored.Data();
  reserved[0] = 0x07;  // last, type 3
  EXPECT_FALSE(Strict(reserved));
  EXPECT_FALSE(DeflateHeaderScan::Strict(nullptr, 0));
}

}  // namespace
}  // namespace Tovrel
