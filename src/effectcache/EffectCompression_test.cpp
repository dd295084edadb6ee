#include "effectcache/EffectCompression.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <random>
#include <vector>

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


// What zlib's uncompress gives for `source` with `room` bytes of room.
struct Outcome {
  int status;
  std::uint64_t length;
  std::vector<std::uint8_t> bytes;
  bool operator==(const Outcome& o) const { return status == o.status && length == o.length && bytes == o.bytes; }
};

Outcome ByUncompress(const std::vector<std::uint8_t>& source, std::uint64_t room) {
  Outcome outcome{0, room, std::vector<std::uint8_t>(room + 1, 0xEE)};
  uLongf length = static_cast<uLongf>(room);
  outcome.status = uncompress(outcome.bytes.data(), &length, source.data(), static_cast<uLong>(source.size()));
  outcome.length = length;
  if (outcome.status == Z_OK) outcome.bytes.resize(length);
  return outcome;
}

Outcome ByDecompressEffect(const std::vector<std::uint8_t>& source, std::uint64_t room) {
  Outcome outcome{0, room, std::vector<std::uint8_t>(room + 1, 0xEE)};
  outcome.status = EffectCompression::DecompressEffect(outcome.bytes.data(), outcome.length, source.data(),
                                                       source.size());
  if (outcome.status == Z_OK) outcome.bytes.resize(outcome.length);
  return outcome;
}

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

}  // namespace
}  // namespace Tovrel
