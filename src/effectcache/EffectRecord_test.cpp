#include "effectcache/EffectRecord.h"

#include <gtest/gtest.h>

#include <vector>

namespace Tovrel {
namespace {

TEST(EffectRecordTest, EncodesFortyFourLittleEndianBytesWithAZeroReservedField) {
  EffectRecord record{};
  record.streamId = 0x0102030405060708ull;
  record.nameLength = 5;
  record.uncompressedSize = 0x100000;
  record.permanent = 1;
  record.lastUsed = CacheTimeStamp{2026, 11, 21, 23, 59, 58, 999};
  record.compressedSize = 0xABCD;
  record.reserved = 77;
  std::vector<std::uint8_t> bytes(EffectRecord::kSize, 0xEE);
  record.Encode(bytes.data());
  const std::vector<std::uint8_t> expected{
      8, 7, 6, 5, 4, 3, 2, 1,          // stream id
      5, 0, 0, 0,                      // name length
      0, 0, 0x10, 0,                   // uncompressed size
      1, 0, 0, 0,                      // permanent
      0xEA, 0x07, 11, 0, 21, 0, 23, 0, 59, 0, 58, 0, 0xE7, 0x03, 0, 0,  // last used
      0xCD, 0xAB, 0, 0,                // compressed size
      0, 0, 0, 0};                     // reserved
  EXPECT_EQ(bytes, expected);
  const EffectRecord back = EffectRecord::Decode(bytes.data());
  EXPECT_EQ(back.streamId, record.streamId);
  EXPECT_EQ(back.uncompressedSize, record.uncompressedSize);
  EXPECT_TRUE(back.lastUsed == record.lastUsed);
  EXPECT_EQ(back.compressedSize, record.compressedSize);
  EXPECT_EQ(back.reserved, 0u);
}

TEST(EffectRecordTest, TheReservedFieldIsKeptAsRead) {
  std::vector<std::uint8_t> bytes(EffectRecord::kSize, 0);
  bytes[40] = 3;
  EXPECT_EQ(EffectRecord::Decode(bytes.data()).reserved, 3u);
}

TEST(CacheTimeStampTest, StampsOrderFieldByFieldFromTheYearDown) {
  const CacheTimeStamp base{2025, 6, 15, 12, 30, 30, 500};
  auto later = [&](int field) {
    CacheTimeStamp s = base;
    switch (field) {
      case 0: ++s.year, s.month = 1; break;
      case 1: ++s.month, s.day = 1; break;
      case 2: ++s.day, s.hour = 0; break;
      case 3: ++s.hour, s.minute = 0; break;
      case 4: ++s.minute, s.second = 0; break;
      case 5: ++s.second, s.milliseconds = 0; break;
      default: ++s.milliseconds; break;
    }
    return s;
  };
  for (int field = 0; field < 7; ++field) {
    EXPECT_TRUE(base < later(field)) << field;
    EXPECT_FALSE(later(field) < base) << field;
  }
  EXPECT_FALSE(base < base);
}

}  // namespace
}  // namespace Tovrel
