#include "pagefile/LittleEndian.h"

#include <gtest/gtest.h>

namespace Tovrel {
namespace {

TEST(LittleEndianTest, StoresTheLowByteFirst) {
  std::uint8_t bytes[8] = {};
  LittleEndian::Store64(bytes, 0x0102030405060708ull);
  const std::uint8_t expected[8] = {8, 7, 6, 5, 4, 3, 2, 1};
  for (int i = 0; i < 8; ++i) EXPECT_EQ(bytes[i], expected[i]);
  EXPECT_EQ(LittleEndian::Load64(bytes), 0x0102030405060708ull);
  LittleEndian::Store32(bytes, 0xA1B2C3D4u);
  EXPECT_EQ(bytes[0], 0xD4);
  EXPECT_EQ(bytes[3], 0xA1);
  EXPECT_EQ(LittleEndian::Load32(bytes), 0xA1B2C3D4u);
  LittleEndian::Store16(bytes, 0x1234);
  EXPECT_EQ(bytes[0], 0x34);
  EXPECT_EQ(bytes[1], 0x12);
  EXPECT_EQ(LittleEndian::Load16(bytes), 0x1234);
}

}  // namespace
}  // namespace Tovrel
