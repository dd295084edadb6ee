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

}  // namespace
}  // namespace Tovrel
