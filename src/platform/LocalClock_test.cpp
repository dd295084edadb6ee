#include "platform/LocalClock.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace Tovrel {
namespace {

TEST(LocalClockTest, NowIsAPlausibleLocalTime) {
  const LocalClock::Time now = LocalClock::Now();
  EXPECT_GE(now.year, 2020);
  EXPECT_GE(now.month, 1);
  EXPECT_LE(now.month, 12);
  EXPECT_GE(now.day, 1);
  EXPECT_LE(now.day, 31);
  EXPECT_LE(now.hour, 23);
  EXPECT_LE(now.minute, 59);
  EXPECT_LE(now.second, 60);
  EXPECT_LE(now.milliseconds, 999);
}

TEST(LocalClockTest, TheTickCountMovesForwardInMilliseconds) {
  const std::uint32_t before = LocalClock::TickCount();
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  const std::uint32_t elapsed = LocalClock::TickCount() - before;
  EXPECT_GE(elapsed, 20u);
  EXPECT_LT(elapsed, 60000u);
}

}  // namespace
}  // namespace Tovrel
