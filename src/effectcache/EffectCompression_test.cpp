#include "effectcache/EffectCompression.h"

#include <gtest/gtest.h>
#include <libdeflate.h>
#include <zlib.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "effectcache/DeflateHeaderScan.h"
#include "effectcache/LibdeflateInflater.h"
#include "support/LenientStreams.h"

namespace Tovrel {
namespace {

std::vector<std::uint8_t> RandomBytes(std::size_t n, unsigned seed) {
  std::mt19937 random(seed);
  std::vector<std::uint8_t> bytes(n);
  for (auto& b : bytes) b = static_cast<std::uint8_t>(random());
  return bytes;
}

TEST(EffectCompressionTest, LevelsAreClampedToZeroThroughNine) {
  EXPECT_EQ(EffectCompression::ClampLevel(-3), 0);
  EXPECT_EQ(EffectCompression::ClampLevel(0), 0);
  EXPECT_EQ(EffectCompression::ClampLevel(2), 2);
  EXPECT_EQ(EffectCompression::ClampLevel(9), 9);
  EXPECT_EQ(EffectCompression::ClampLevel(12), 9);
  const auto input = RandomBytes(5000, 1);
  for (int level : {-7, 15}) {
    std::vector<std::uint8_t> ours(EffectCompression::CompressBound(input.size()));
    std::uint64_t ourLength = ours.size();
    ASSERT_EQ(EffectCompression::CompressEffect(ours.data(), ourLength, input.data(), input.size(), level), 0);
    std::vector<std::uint8_t> theirs(compressBound(static_cast<uLong>(input.size())));
    uLongf theirLength = static_cast<uLongf>(theirs.size());
    ASSERT_EQ(compress2(theirs.data(), &theirLength, input.data(), static_cast<uLong>(input.size()),
                        EffectCompression::ClampLevel(level)),
              Z_OK);
    ours.resize(ourLength);
    theirs.resize(theirLength);
    EXPECT_EQ(ours, theirs) << level;
  }
}

TEST(EffectCompressionTest, AOneByteEffectFitsTheFourteenByteBound) {
  EXPECT_EQ(EffectCompression::CompressBound(1), 14u);
  const std::uint8_t one = 0x42;
  std::vector<std::uint8_t> out(14);
  std::uint64_t length = out.size();
  ASSERT_EQ(EffectCompression::CompressEffect(out.data(), length, &one, 1, 2), 0);
  EXPECT_GT(length, 0u);
  EXPECT_LE(length, 14u);
  std::uint8_t back = 0;
  std::uint64_t backLength = 1;
  ASSERT_EQ(EffectCompression::DecompressEffect(&back, backLength, out.data(), length), 0);
  EXPECT_EQ(back, one);
}

TEST(EffectCompressionTest, IncompressibleOneMebibyteFitsItsBound) {
  EXPECT_EQ(EffectCompression::CompressBound(1048576), 1048909u);
  const auto input = RandomBytes(1048576, 2);
  std::vector<std::uint8_t> out(EffectCompression::CompressBound(input.size()));
  std::uint64_t length = out.size();
  ASSERT_EQ(EffectCompression::CompressEffect(out.data(), length, input.data(), input.size(), 2), 0);
  EXPECT_LE(length, 1048909u);
  std::vector<std::uint8_t> back(input.size());
  std::uint64_t backLength = back.size();
  ASSERT_EQ(EffectCompression::DecompressEffect(back.data(), backLength, out.data(), length), 0);
  EXPECT_EQ(back, input);
}

TEST(EffectCompressionTest, TheSameStreamAsCompress2AtTheCacheLevel) {
  std::vector<std::uint8_t> input(70000);
  for (std::size_t i = 0; i < input.size(); ++i) input[i] = static_cast<std::uint8_t>((i % 97) ^ (i / 1000));
  std::vector<std::uint8_t> ours(EffectCompression::CompressBound(input.size()));
  std::uint64_t ourLength = ours.size();
  ASSERT_EQ(EffectCompression::CompressEffect(ours.data(), ourLength, input.data(), input.size(), 2), 0);
  std::vector<std::uint8_t> theirs(compressBound(static_cast<uLong>(input.size())));
  uLongf theirLength = static_cast<uLongf>(theirs.size());
  ASSERT_EQ(compress2(theirs.data(), &theirLength, input.data(), static_cast<uLong>(input.size()), 2), Z_OK);
  ours.resize(ourLength);
  theirs.resize(theirLength);
  EXPECT_EQ(ours, theirs);
  EXPECT_LT(ourLength, input.size() / 4);
}

TEST(EffectCompressionTest, ATooSmallBufferIsABufferError) {
  const auto input = RandomBytes(1000, 3);
  std::vector<std::uint8_t> out(100);
  std::uint64_t length = out.size();
  EXPECT_EQ(EffectCompression::CompressEffect(out.data(), length, input.data(), input.size(), 2),
            EffectCompression::kBufferError);
  EXPECT_EQ(length, 100u);
}

TEST(EffectCompressionTest, ARoomAbove32BitsIsRefused) {
  const std::uint8_t byte = 1;
  std::uint8_t out[32];
  std::uint64_t length = (std::uint64_t{1} << 32) + 20;
  EXPECT_EQ(EffectCompression::CompressEffect(out, length, &byte, 1, 2), EffectCompression::kBufferError);
}

TEST(EffectCompressionTest, DamagedStreamsAreRefusedByDecompression) {
  const auto input = RandomBytes(4000, 4);
  std::vector<std::uint8_t> out(EffectCompression::CompressBound(input.size()));
  std::uint64_t length = out.size();
  ASSERT_EQ(EffectCompression::CompressEffect(out.data(), length, input.data(), input.size(), 2), 0);
  out[length - 1] ^= 0xFF;  // the checksum
  std::vector<std::uint8_t> back(input.size());
  std::uint64_t backLength = back.size();
  EXPECT_NE(EffectCompression::DecompressEffect(back.data(), backLength, out.data(), length), 0);
  backLength = 10;  // and a buffer too small for the data
  out[length - 1] ^= 0xFF;
  EXPECT_EQ(EffectCompression::DecompressEffect(back.data(), backLength, out.data(), length), Z_BUF_ERROR);
}


// What zlib's uncompress gives for `source` with `room` bytes of room, and
// what DecompressEffect gives: status, length and the whole buffer, past
// the room too (a buffer of kGuard more bytes, all 0xEE to start with).
constexpr std::uint64_t kGuard = 16;

struct Outcome {
  int status;
  std::uint64_t length;
  std::vector<std::uint8_t> bytes;
  bool operator==(const Outcome& o) const { return status == o.status && length == o.length && bytes == o.bytes; }
};

Outcome ByUncompress(const std::vector<std::uint8_t>& source, std::uint64_t room) {
  Outcome outcome{0, room, std::vector<std::uint8_t>(room + kGuard, 0xEE)};
  uLongf length = static_cast<uLongf>(room);
  outcome.status = uncompress(outcome.bytes.data(), &length, source.data(), static_cast<uLong>(source.size()));
  outcome.length = length;
  return outcome;
}

Outcome ByDecompressEffect(const std::vector<std::uint8_t>& source, std::uint64_t room) {
  Outcome outcome{0, room, std::vector<std::uint8_t>(room + kGuard, 0xEE)};
  outcome.status = EffectCompression::DecompressEffect(outcome.bytes.data(), outcome.length, source.data(),
                                                       source.size());
  return outcome;
}

Outcome ByDecompressEffectDirect(const std::vector<std::uint8_t>& source, std::uint64_t room) {
  Outcome outcome{0, room, std::vector<std::uint8_t>(room + kGuard, 0xEE)};
  outcome.status = EffectCompression::DecompressEffectDirect(outcome.bytes.data(), outcome.length, source.data(),
                                                             source.size());
  return outcome;
}

// Compares both for `source` in each room; counts the comparisons and
// those where zlib succeeded.
struct Comparison {
  std::size_t compared = 0;
  std::size_t succeeded = 0;
  ::testing::AssertionResult Check(const std::vector<std::uint8_t>& source, std::uint64_t room) {
    const Outcome expected = ByUncompress(source, room);
    const Outcome actual = ByDecompressEffect(source, room);
    ++compared;
    if (expected.status == Z_OK) ++succeeded;
    // Straight into dest: the same status and length, the same bytes on
    // success; nothing is promised of the rest.
    const Outcome direct = ByDecompressEffectDirect(source, room);
    if (direct.status != expected.status || direct.length != expected.length ||
        (expected.status == Z_OK &&
         !std::equal(expected.bytes.begin(), expected.bytes.begin() + static_cast<std::ptrdiff_t>(expected.length),
                     direct.bytes.begin()))) {
      return ::testing::AssertionFailure() << "direct: room " << room << " source " << source.size() << " zlib "
                                           << expected.status << "/" << expected.length << " ours " << direct.status
                                           << "/" << direct.length;
    }
    if (actual == expected) return ::testing::AssertionSuccess();
    std::size_t at = 0;
    while (at < expected.bytes.size() && expected.bytes[at] == actual.bytes[at]) ++at;
    return ::testing::AssertionFailure() << "room " << room << " source " << source.size() << " zlib "
                                         << expected.status << "/" << expected.length << " ours " << actual.status
                                         << "/" << actual.length << " first differing byte " << at;
  }
};

TEST(EffectCompressionTest, DecompressionGivesWhatUncompressGivesForEveryDamage) {
  // Streams as the cache writes them, then damaged in every way a file can
  // damage them: a byte changed anywhere (header, data, checksum), cut
  // short, bytes appended, another header; and read into too little, just
  // enough and more room. Status, length and bytes must all be zlib's.
  std::mt19937 random(11);
  std::size_t compared = 0, succeeded = 0;
  for (std::size_t size : {1u, 31u, 32u, 33u, 700u, 5536u, 5537u, 20000u, 70000u}) {
    std::vector<std::uint8_t> input = RandomBytes(size, static_cast<unsigned>(size));
    for (std::size_t i = 0; i < size; i += 3) input[i] = static_cast<std::uint8_t>(i % 7);  // compressible
    std::vector<std::uint8_t> stream(EffectCompression::CompressBound(size));
    std::uint64_t length = stream.size();
    ASSERT_EQ(EffectCompression::CompressEffect(stream.data(), length, input.data(), size, 2), 0);
    stream.resize(length);
    std::vector<std::vector<std::uint8_t>> damaged{stream};
    for (int k = 0; k < 40; ++k) {
      auto copy = stream;
      copy[random() % copy.size()] ^= static_cast<std::uint8_t>(1 + random() % 255);
      damaged.push_back(copy);
    }
    for (std::size_t cut : {std::size_t{0}, std::size_t{1}, std::size_t{2}, std::size_t{5}, length - 4, length - 1}) {
      damaged.emplace_back(stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(cut));
    }
    auto longer = stream;
    longer.insert(longer.end(), {1, 2, 3});
    damaged.push_back(longer);
    for (std::uint8_t header : {0x08, 0x58, 0x68, 0x88}) {  // other windows and methods, checksummed header
      auto other = stream;
      other[0] = header;
      other[1] = static_cast<std::uint8_t>(31 - (header * 256u) % 31);
      damaged.push_back(other);
    }
    auto dictionary = stream;
    dictionary[1] = static_cast<std::uint8_t>((dictionary[1] | 0x20) & 0xE0);
    dictionary[1] = static_cast<std::uint8_t>(dictionary[1] + (31 - (0x78 * 256u + dictionary[1]) % 31) % 31);
    damaged.push_back(dictionary);
    for (const auto& source : damaged) {
      for (std::uint64_t room : {std::uint64_t{1}, std::uint64_t{size - (size > 1 ? 1 : 0)}, std::uint64_t{size},
                                 std::uint64_t{size + 100}}) {
        const Outcome expected = ByUncompress(source, room);
        ASSERT_TRUE(ByDecompressEffect(source, room) == expected)
            << "size " << size << " room " << room << " source " << source.size() << " zlib " << expected.status;
        ++compared;
        if (expected.status == Z_OK) ++succeeded;
      }
    }
  }
  EXPECT_GT(compared, 1000u);
  EXPECT_GT(succeeded, 50u);  // the unharmed streams, and those harmed only past their end
}

// Inputs of every shape the streams come in: nothing, one byte, short
// text (fixed codes), compressible and random bytes of one block, and
// inputs of several blocks (dynamic blocks before the last; stored blocks).
std::vector<std::vector<std::uint8_t>> Inputs() {
  std::vector<std::vector<std::uint8_t>> inputs{{}, {0x42}};
  const std::string text = "float4 main(float2 uv : TEXCOORD0) : SV_Target { return tex.Sample(s, uv); }";
  inputs.emplace_back(text.begin(), text.end());
  std::vector<std::uint8_t> compressible = RandomBytes(5000, 21);
  for (std::size_t i = 0; i < compressible.size(); i += 2) compressible[i] = static_cast<std::uint8_t>(i % 13);
  inputs.push_back(compressible);
  inputs.push_back(RandomBytes(5000, 22));
  std::mt19937 random(23);
  std::vector<std::uint8_t> letters(150000);
  for (auto& b : letters) b = static_cast<std::uint8_t>('a' + random() % 20);
  inputs.push_back(letters);
  inputs.push_back(RandomBytes(140000, 24));
  return inputs;
}

std::vector<std::uint8_t> Compress2(const std::vector<std::uint8_t>& input, int level) {
  uLongf length = compressBound(static_cast<uLong>(input.size()));
  std::vector<std::uint8_t> stream(length);
  EXPECT_EQ(compress2(stream.data(), &length, input.data(), static_cast<uLong>(input.size()), level), Z_OK);
  stream.resize(length);
  return stream;
}

std::vector<std::uint64_t> Rooms(std::uint64_t size) {
  std::vector<std::uint64_t> rooms{0, 1, size, size + 1, size + 300};
  if (size > 1) rooms.push_back(size - 1);
  return rooms;
}

TEST(EffectCompressionTest, StreamsOfEveryLevelAndShapeInEveryRoom) {
  Comparison comparison;
  const std::uint64_t decodedBefore = LibdeflateInflater::DecodedTotal();
  std::size_t strict = 0, fitting = 0, decodable = 0;
  for (const auto& input : Inputs()) {
    for (int level = 0; level <= 9; ++level) {
      const auto stream = Compress2(input, level);
      const bool scanned = DeflateHeaderScan::Strict(stream.data() + 2, stream.size() - 6);
      if (scanned) ++strict;
      for (std::uint64_t room : Rooms(input.size())) {
        ASSERT_TRUE(comparison.Check(stream, room)) << "input " << input.size() << " level " << level;
        // uncompress decodes into a byte of its own for no room: one byte
        // decoded there is a success, of length 0.
        if (room >= input.size() || (room == 0 && input.size() == 1)) ++fitting;
        if (scanned && room >= input.size() && room > 0) ++decodable;
      }
    }
  }
  EXPECT_EQ(comparison.succeeded, fitting);
  // libdeflate decoded each stream it should, in each room that held it:
  // all but those of fixed codes and of dynamic blocks before the last;
  // once for each of the two decoders.
  EXPECT_GE(strict, 30u);
  EXPECT_EQ(LibdeflateInflater::DecodedTotal() - decodedBefore, 2 * decodable);
}

TEST(EffectCompressionTest, EveryBitOfSmallStreamsFlipped) {
  // A stored, a fixed-code and two dynamic streams, each bit flipped in
  // turn: header, block headers, codes, data, trailer.
  std::vector<std::vector<std::uint8_t>> streams;
  const auto inputs = Inputs();
  streams.push_back(Compress2(inputs[2], 0));
  streams.push_back(Compress2(inputs[2], 6));
  std::vector<std::uint8_t> shader(600);
  for (std::size_t i = 0; i < shader.size(); ++i) shader[i] = static_cast<std::uint8_t>((i * 37) % 23 + (i / 50));
  streams.push_back(Compress2(shader, 2));
  streams.push_back(Compress2(shader, 9));
  ASSERT_TRUE(DeflateHeaderScan::Strict(streams[2].data() + 2, streams[2].size() - 6));
  Comparison comparison;
  for (const auto& stream : streams) {
    const uLongf size = static_cast<uLongf>(stream == streams[0] || stream == streams[1] ? inputs[2].size()
                                                                                          : shader.size());
    for (std::size_t bit = 0; bit < stream.size() * 8; ++bit) {
      auto flipped = stream;
      flipped[bit / 8] ^= static_cast<std::uint8_t>(1u << (bit % 8));
      for (std::uint64_t room : {std::uint64_t{size} - 1, std::uint64_t{size}, std::uint64_t{size} + 64}) {
        ASSERT_TRUE(comparison.Check(flipped, room)) << "stream " << stream.size() << " bit " << bit;
      }
    }
  }
  EXPECT_GT(comparison.compared, 9000u);
}

TEST(EffectCompressionTest, EveryCutEveryTrailerAndTrailingBytes) {
  const auto inputs = Inputs();
  Comparison comparison;
  for (const auto& input : {inputs[2], inputs[3]}) {
    for (int level : {0, 2, 6}) {
      const auto stream = Compress2(input, level);
      for (std::size_t cut = 0; cut < stream.size(); ++cut) {
        const std::vector<std::uint8_t> shorter(stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(cut));
        for (std::uint64_t room : {std::uint64_t{input.size()}, std::uint64_t{input.size()} + 9}) {
          ASSERT_TRUE(comparison.Check(shorter, room)) << "cut at " << cut;
        }
      }
      for (std::size_t at = stream.size() - 4; at < stream.size(); ++at) {
        for (int value = 0; value < 256; value += 17) {
          auto trailer = stream;
          trailer[at] = static_cast<std::uint8_t>(trailer[at] ^ value);
          ASSERT_TRUE(comparison.Check(trailer, input.size())) << "trailer byte " << at << " ^ " << value;
        }
      }
      auto longer = stream;
      for (int extra = 1; extra <= 9; ++extra) {
        longer.push_back(static_cast<std::uint8_t>(extra * 29));
        ASSERT_TRUE(comparison.Check(longer, input.size())) << extra;
        ASSERT_TRUE(comparison.Check(longer, input.size() + 100)) << extra;
      }
      auto twice = stream;
      twice.insert(twice.end(), stream.begin(), stream.end());
      ASSERT_TRUE(comparison.Check(twice, input.size()));
      ASSERT_TRUE(comparison.Check(twice, 2 * input.size()));
    }
  }
  EXPECT_GT(comparison.succeeded, 100u);
}

TEST(EffectCompressionTest, WhatLibdeflateAloneTakesAndZlibRefusesGoesToZlib) {
  const auto streams = Testing::LenientStreams::All();
  ASSERT_GE(streams.size(), 12u);
  libdeflate_decompressor* libdeflate = libdeflate_alloc_decompressor();
  ASSERT_NE(libdeflate, nullptr);
  Comparison comparison;
  for (const auto& stream : streams) {
    // Each is a stream libdeflate takes whole and zlib refuses.
    std::vector<std::uint8_t> out(70000);
    std::size_t produced = 0;
    EXPECT_EQ(libdeflate_zlib_decompress(libdeflate, stream.bytes.data(), stream.bytes.size(), out.data(),
                                         out.size(), &produced),
              LIBDEFLATE_SUCCESS)
        << stream.name;
    EXPECT_EQ(produced, stream.decoded.size()) << stream.name;
    EXPECT_NE(ByUncompress(stream.bytes, 70000).status, Z_OK) << stream.name;
    for (std::uint64_t room : Rooms(stream.decoded.size())) {
      ASSERT_TRUE(comparison.Check(stream.bytes, room)) << stream.name;
    }
    ASSERT_TRUE(comparison.Check(stream.bytes, 70000)) << stream.name;
  }
  libdeflate_free_decompressor(libdeflate);
  EXPECT_EQ(comparison.succeeded, 0u);
}

TEST(EffectCompressionTest, AnEmptyStoredStreamGivesNoBytes) {
  // A last stored block of no bytes and the Adler-32 of nothing.
  const std::vector<std::uint8_t> empty{0x78, 0x01, 0x01, 0x00, 0x00, 0xFF, 0xFF, 0x00, 0x00, 0x00, 0x01};
  const std::uint64_t before = LibdeflateInflater::DecodedTotal();
  Comparison comparison;
  for (std::uint64_t room : {0u, 1u, 5u}) ASSERT_TRUE(comparison.Check(empty, room));
  EXPECT_EQ(comparison.succeeded, 3u);
  // Rooms 1 and 5, once for each of the two decoders; room 0 is uncompress's.
  EXPECT_EQ(LibdeflateInflater::DecodedTotal(), before + 4);
}

TEST(EffectCompressionTest, ManyRandomDamagesOfStreamsAsTheCacheWritesThem) {
  std::mt19937 random(31);
  Comparison comparison;
  for (int n = 0; n < 300; ++n) {
    const std::size_t size = 1 + random() % 3000;
    std::vector<std::uint8_t> input = RandomBytes(size, static_cast<unsigned>(n));
    for (std::size_t i = 0; i < size; i += 1 + random() % 4) input[i] = static_cast<std::uint8_t>(i % 5);
    const auto stream = Compress2(input, static_cast<int>(random() % 10));
    for (int k = 0; k < 10; ++k) {
      auto damaged = stream;
      const int changes = 1 + static_cast<int>(random() % 3);
      for (int c = 0; c < changes; ++c) damaged[random() % damaged.size()] ^= static_cast<std::uint8_t>(1 + random() % 255);
      ASSERT_TRUE(comparison.Check(damaged, size)) << n << " " << k;
      ASSERT_TRUE(comparison.Check(damaged, size + 40)) << n << " " << k;
    }
  }
  EXPECT_EQ(comparison.compared, 6000u);
}

}  // namespace
}  // namespace Tovrel
