#include "platform/SparseBytes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

namespace Tovrel {
namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(SparseBytesTest, AFileEqualsExactlyItsOwnBytes) {
  SparseBytes file;
  Bytes bytes(3 * SparseBytes::kBlockSize + 100);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(i * 7 + 1);
  file.Write(0, bytes.data(), bytes.size());
  EXPECT_TRUE(file.Equals(bytes.data(), bytes.size()));
  EXPECT_FALSE(file.Equals(bytes.data(), bytes.size() - 1));
  Bytes longer = bytes;
  longer.push_back(0);
  EXPECT_FALSE(file.Equals(longer.data(), longer.size()));
  for (const std::size_t at :
       {std::size_t{0}, SparseBytes::kBlockSize - 1, SparseBytes::kBlockSize, bytes.size() - 1}) {
    Bytes changed = bytes;
    changed[at] ^= 0x40;
    EXPECT_FALSE(file.Equals(changed.data(), changed.size())) << at;
  }
}

TEST(SparseBytesTest, BlocksNeverWrittenEqualZeros) {
  SparseBytes file;
  const std::uint8_t last = 9;
  file.Write(2 * SparseBytes::kBlockSize + 5, &last, 1);  // blocks 0 and 1 are never written
  Bytes expected(2 * SparseBytes::kBlockSize + 6, 0);
  expected.back() = last;
  EXPECT_TRUE(file.Equals(expected.data(), expected.size()));
  expected[SparseBytes::kBlockSize + 3] = 1;
  EXPECT_FALSE(file.Equals(expected.data(), expected.size()));
  EXPECT_TRUE(SparseBytes().Equals(nullptr, 0));
  EXPECT_FALSE(file.Equals(nullptr, 0));
}

TEST(SparseBytesTest, WritesInAnyOrderReadBackAsWritten) {
  SparseBytes file;
  Bytes expected(9 * SparseBytes::kBlockSize + 100, 0);  // the last write ends 100 bytes into block 9
  const std::size_t order[] = {5, 1, 8, 0, 3};           // each write spans two blocks; block 7 stays unwritten
  for (const std::size_t block : order) {
    const std::uint64_t at = block * SparseBytes::kBlockSize + 100;
    const Bytes bytes(SparseBytes::kBlockSize, static_cast<std::uint8_t>(block + 1));  // spans two blocks
    file.Write(at, bytes.data(), bytes.size());
    std::copy(bytes.begin(), bytes.end(), expected.begin() + static_cast<std::ptrdiff_t>(at));
  }
  EXPECT_EQ(file.Size(), expected.size());
  EXPECT_EQ(file.ToVector(), expected);
  Bytes middle(3 * SparseBytes::kBlockSize);
  EXPECT_EQ(file.Read(2 * SparseBytes::kBlockSize + 50, middle.data(), middle.size()), middle.size());
  EXPECT_TRUE(std::equal(middle.begin(), middle.end(), expected.begin() + 2 * SparseBytes::kBlockSize + 50));
}

TEST(SparseBytesTest, CuttingZeroesWhatIsCutAndGrowingAgainReadsZeros) {
  SparseBytes file;
  const Bytes bytes(3 * SparseBytes::kBlockSize, 0xAB);
  file.Write(0, bytes.data(), bytes.size());
  file.Resize(SparseBytes::kBlockSize + 10);
  EXPECT_EQ(file.BlockBytes(), 2 * SparseBytes::kBlockSize);
  file.Resize(3 * SparseBytes::kBlockSize);
  Bytes expected(SparseBytes::kBlockSize + 10, 0xAB);
  expected.resize(3 * SparseBytes::kBlockSize, 0);
  EXPECT_EQ(file.ToVector(), expected);
  file.Resize(0);
  EXPECT_EQ(file.BlockBytes(), 0u);
  EXPECT_EQ(file.Read(0, expected.data(), 1), 0u);
}

TEST(SparseBytesTest, BlocksOfDroppedFilesComeBackZeroed) {
  for (int round = 0; round < 3; ++round) {
    std::vector<SparseBytes> files(40);
    const Bytes full(SparseBytes::kBlockSize, 0xFF);
    for (SparseBytes& file : files) file.Write(0, full.data(), full.size());
    files.clear();  // their blocks go to the spare pool
    SparseBytes next;
    const std::uint8_t one = 1;
    next.Write(4 * SparseBytes::kBlockSize - 1, &one, 1);
    next.Write(SparseBytes::kBlockSize, &one, 1);
    Bytes expected(4 * SparseBytes::kBlockSize, 0);
    expected[SparseBytes::kBlockSize] = 1;
    expected.back() = 1;
    EXPECT_EQ(next.ToVector(), expected) << round;
  }
}

TEST(SparseBytesTest, ACopyIsDeep) {
  SparseBytes file;
  const Bytes bytes(SparseBytes::kBlockSize + 1, 7);
  file.Write(0, bytes.data(), bytes.size());
  SparseBytes copy(file);
  const std::uint8_t other = 8;
  copy.Write(0, &other, 1);
  EXPECT_TRUE(file.Equals(bytes.data(), bytes.size()));
  EXPECT_EQ(copy.ToVector()[0], 8);
  file = copy;
  EXPECT_EQ(file.ToVector()[0], 8);
}

}  // namespace
}  // namespace Tovrel
