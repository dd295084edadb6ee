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
  {
    LibdeflateInflater inflater;
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
  }
}

TEST(LibdeflateInflaterTest, KeepsItsBufferAtTheLimitWhateverTheRoom) {
  LibdeflateInflater inflater;
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

TEST(LibdeflateInflaterTest, ABorrowedInflaterIsTheBorrowersAloneAndKeptForTheNext) {
  const auto stream = Compress(Pattern(1000));
  const std::uint8_t* out = nullptr;
  std::size_t produced = 0;
  const LibdeflateInflater* first = nullptr;
  {
    const LibdeflateInflater::Lease lease = LibdeflateInflater::Borrow();
    ASSERT_NE(lease.Get(), nullptr);
    first = lease.Get();
    const std::uint64_t before = LibdeflateInflater::DecodedTotal();
    ASSERT_TRUE(lease->Inflate(stream.data(), stream.size(), 1000, out, produced));
    EXPECT_EQ(LibdeflateInflater::DecodedTotal(), before + 1);
    // Another thread decoding meanwhile gets another inflater.
    const LibdeflateInflater* theirs = nullptr;
    std::thread([&] {
      const LibdeflateInflater::Lease other = LibdeflateInflater::Borrow();
      theirs = other.Get();
      EXPECT_TRUE(other->Inflate(stream.data(), stream.size(), 1000, out, produced));
    }).join();
    EXPECT_NE(theirs, nullptr);
    EXPECT_NE(theirs, first);
  }
  // Given back, the inflater and its decompressor serve the next borrower.
  const LibdeflateInflater::Lease again = LibdeflateInflater::Borrow();
  EXPECT_TRUE(again->HasDecompressor());
  EXPECT_GE(again->Capacity(), 1000u);
}

// Threads that decode and end, as a host's worker threads do, leave
// nothing to be torn down when they end (an inflater destroyed at thread
// exit would, with Windows' emulated thread-local storage, read memory
// already freed).
TEST(LibdeflateInflaterTest, ThreadsThatDecodeAndEndOneAfterAnother) {
  const auto input = Pattern(5000);
  const auto stream = Compress(input);
  int wrong = 0;
  for (int round = 0; round < 200; ++round) {
    std::thread([&] {
      const LibdeflateInflater::Lease lease = LibdeflateInflater::Borrow();
      const std::uint8_t* out = nullptr;
      std::size_t produced = 0;
      if (!lease->Inflate(stream.data(), stream.size(), input.size(), out, produced) || produced != input.size() ||
          !std::equal(input.begin(), input.end(), out)) {
        ++wrong;
      }
    }).join();
  }
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace Tovrel
