#include "effectcache/CacheTimeStamp.h"

#include <gtest/gtest.h>

namespace Tovrel {
namespace {

TEST(CacheTimeStampTest, SecondsCountFromTheStartOf1970) {
  EXPECT_EQ((CacheTimeStamp{1970, 1, 1, 0, 0, 0, 0}).Seconds(), 0);
  EXPECT_EQ((CacheTimeStamp{1970, 1, 2, 0, 0, 1, 999}).Seconds(), 86401);
  EXPECT_EQ((CacheTimeStamp{2000, 3, 1, 0, 0, 0, 0}).Seconds(), 951868800);  // after a leap day of a 400th year
  EXPECT_EQ((CacheTimeStamp{2026, 11, 24, 17, 20, 5, 0}).Seconds(), 1795540805);
  EXPECT_EQ((CacheTimeStamp{1969, 12, 31, 23, 59, 59, 0}).Seconds(), -1);
}

TEST(CacheTimeStampTest, SecondsAndStampsRoundTripAcrossMonthsAndLeapYears) {
  for (std::int64_t s = 0; s < 4LL * 366 * 86400; s += 86400 / 4 + 17) {
    const CacheTimeStamp stamp = CacheTimeStamp::FromSeconds(s);
    ASSERT_EQ(stamp.Seconds(), s);
    ASSERT_GE(stamp.month, 1);
    ASSERT_LE(stamp.month, 12);
  }
  EXPECT_EQ(CacheTimeStamp::FromSeconds(951782400), (CacheTimeStamp{2000, 2, 29, 0, 0, 0, 0}));
  // Later stamps have more seconds, as they order.
  EXPECT_LT((CacheTimeStamp{2025, 12, 31, 23, 59, 59, 0}).Seconds(), (CacheTimeStamp{2026, 1, 1, 0, 0, 0, 0}).Seconds());
}

}  // namespace
}  // namespace Tovrel
