#include "TextFormat.h"

#include <gtest/gtest.h>

#include "support/ScopedTimeZone.h"

namespace Tovrel {
namespace Tool {
namespace {

TEST(TextFormatTest, GroupsDigitsByThousands) {
  EXPECT_EQ(TextFormat::Count(0), "0");
  EXPECT_EQ(TextFormat::Count(999), "999");
  EXPECT_EQ(TextFormat::Count(1000), "1,000");
  EXPECT_EQ(TextFormat::Count(35212288), "35,212,288");
}

TEST(TextFormatTest, SizesInBinaryUnits) {
  EXPECT_EQ(TextFormat::Size(512), "512 B");
  EXPECT_EQ(TextFormat::Size(2048), "2.0 KiB");
  EXPECT_EQ(TextFormat::Size(35212288), "33.6 MiB");
  EXPECT_EQ(TextFormat::Bytes(1), "1 byte");
  EXPECT_EQ(TextFormat::Bytes(1023), "1,023 bytes");
  EXPECT_EQ(TextFormat::Bytes(1536), "1,536 bytes (1.5 KiB)");
}

TEST(TextFormatTest, RatiosAndPercentsWithoutADivisorAreADash) {
  EXPECT_EQ(TextFormat::Ratio(303, 100), "3.03:1");
  EXPECT_EQ(TextFormat::Ratio(5, 0), "-");
  EXPECT_EQ(TextFormat::Percent(1, 8), "12.5 %");
  EXPECT_EQ(TextFormat::Percent(1, 0), "-");
}

TEST(TextFormatTest, SecondsAndTimeStamps) {
  EXPECT_EQ(TextFormat::Seconds(0.31), "310 ms");
  EXPECT_EQ(TextFormat::Seconds(7.414), "7.41 s");
}

// Stamps are kept in UTC and shown in the reader's local time, with its
// offset.
TEST(TextFormatTest, TimeStampsAreShownInTheLocalTimeWithItsOffset) {
  const CacheTimeStamp stamp{2024, 5, 1, 9, 3, 7, 45};
  {
    const Testing::ScopedTimeZone utc("UTC0");
    EXPECT_EQ(TextFormat::Time(stamp), "2024-05-01 09:03:07.045 +00:00");
    EXPECT_EQ(TextFormat::IsoTime(stamp), "2024-05-01T09:03:07.045+00:00");
  }
  {
    const Testing::ScopedTimeZone east("JST-9");
    EXPECT_EQ(TextFormat::Time(stamp), "2024-05-01 18:03:07.045 +09:00");
    EXPECT_EQ(TextFormat::IsoTime(CacheTimeStamp{2024, 12, 31, 23, 30, 0, 0}), "2025-01-01T08:30:00.000+09:00");
  }
  {
    // Zones without daylight saving: the Windows C runtime under wine
    // applies none from TZ.
    const Testing::ScopedTimeZone west("EST5");
    EXPECT_EQ(TextFormat::Time(stamp), "2024-05-01 04:03:07.045 -05:00");
  }
}

TEST(TextFormatTest, PadsToAWidth) {
  EXPECT_EQ(TextFormat::Right("12", 5), "   12");
  EXPECT_EQ(TextFormat::Left("ab", 4), "ab  ");
  EXPECT_EQ(TextFormat::Right("123456", 3), "123456");
}

TEST(TextFormatTest, CountedNounsArePluralExceptForOne) {
  EXPECT_EQ(TextFormat::Counted(0, "effect"), "0 effects");
  EXPECT_EQ(TextFormat::Counted(1, "effect"), "1 effect");
  EXPECT_EQ(TextFormat::Counted(12345, "tail"), "12,345 tails");
}

}  // namespace
}  // namespace Tool
}  // namespace Tovrel
