#include "effectcache/LibdeflateInflater.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "effectcache/EffectCacheImpl.h"

namespace Tovrel {
namespace {

std::vector<std::uint8_t> Compress(const std::vector<std::uint8_t>& input) {
  uLongf length = compressBound(static_cast<uLong>(input.size()));
  std::vector<std::uint8_t> stream(length);
  EXPECT_EQ(compress2(stream.data(), &length, input.data(), static_cast<uLong>(input.size()), 2), Z_OK);
  stream.resize(length);
  return stream;
}

std::vector<std::uint8_t> Pattern(std::size_t size) {
  std::vector<std::uint8_t> bytes(size);
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<std::uint8_t>((i * 7) ^ (i >> 9));
  return bytes;
}

TEST(LibdeflateInflaterTest, HoldsTheLargestEffect) {
  EXPECT_GE(LibdeflateInflater::kBufferLimit, EffectCacheImpl::kEffectSizeLimit);
}

TEST(LibdeflateInflaterTest, DecodesIntoItsBufferWithinTheRoomGiven) {
  // On a thread of its own, whose inflater has decoded nothing yet.
  std::thread([] {
    LibdeflateInflater& inflater = LibdeflateInflater::ForThisThread();
    EXPECT_FALSE(inflater.HasDecompressor());
    EXPECT_EQ(inflater.Capacity(), 0u);
    const auto input = Pattern(100000);
    const auto stream = Compress(input);
    const std::uint8_t* out = nullptr;
    std::size_t produced = 0;
    ASSERT_TRUE(inflater.Inflate(stream.data(), stream.size(), input.size() + 10, out, produced));
    EXPECT_TRUE(inflater.HasDecompressor());
    EXPECT_EQ(inflater.Decoded(), 1u);
    ASSERT_EQ(produced, input.size());
    EXPECT_TRUE(std::equal(input.begin(), input.end(), out));
    EXPECT_EQ(inflater.Capacity(), std::size_t{1} << 17);  // a power of two
    EXPECT_FALSE(inflater.Inflate(stream.data(), stream.size(), input.size() - 1, out, produced));
    auto damaged = stream;
    damaged.back() ^= 1;  // the Adler-32
    EXPECT_FALSE(inflater.Inflate(damaged.data(), damaged.size(), input.size(), out, produced));
    EXPECT_EQ(inflater.Decoded(), 1u);
    EXPECT_EQ(inflater.Capacity(), std::size_t{1} << 17);
  }).join();
}

TEST(LibdeflateInflaterTest, KeepsItsBufferAtTheLimitWhateverTheRoom) {
  LibdeflateInflater& inflater = LibdeflateInflater::ForThisThread();
  const auto input = Pattern(LibdeflateInflater::kBufferLimit);
  const auto stream = Compress(input);
  const std::uint8_t* out = nullptr;
  std::size_t produced = 0;
  ASSERT_TRUE(inflater.Inflate(stream.data(), stream.size(), std::size_t{1} << 30, out, produced));
  EXPECT_EQ(produced, input.size());
  EXPECT_EQ(inflater.Capacity(), LibdeflateInflater::kBufferLimit);
  const auto more = Compress(Pattern(LibdeflateInflater::kBufferLimit + 1));
  EXPECT_FALSE(inflater.Inflate(more.data(), more.size(), std::size_t{1} << 30, out, produced));
  EXPECT_EQ(inflater.Capacity(), LibdeflateInflater::kBufferLimit);
}

TEST(LibdeflateInflaterTest, EachThreadHasItsOwn) {
  const LibdeflateInflater* mine = &LibdeflateInflater::ForThisThread();
  const LibdeflateInflater* theirs = nullptr;
  bool theirsHadDecompressor = true;
  std::thread other([&] {
    theirs = &LibdeflateInflater::ForThisThread();
    theirsHadDecompressor = theirs->HasDecompressor();
    const auto stream = Compress(Pattern(1000));
    const std::uint8_t* out = nullptr;
    std::size_t produced = 0;
    EXPECT_TRUE(LibdeflateInflater::ForThisThread().Inflate(stream.data(), stream.size(), 1000, out, produced));
  });
  other.join();
  EXPECT_NE(mine, theirs);
  EXPECT_FALSE(theirsHadDecompressor);
  EXPECT_EQ(mine, &LibdeflateInflater::ForThisThread());
}

}  // namespace
}  // namespace Tovrel
