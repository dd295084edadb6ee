#include "platform/MutexWaits.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "platform/NamedMutex.h"
#include "platform/WideText.h"
#include "support/ChildLauncher.h"

namespace Tovrel {
namespace {

using Testing::ChildLauncher;

class MutexWaitsTest : public ::testing::Test {
 protected:
  void TearDown() override { MutexWaits::Reset(); }

  const std::string name_ = ChildLauncher::UniqueName("mutex_waits");
  NamedMutex mutex_{WideText::FromUtf8(name_).c_str()};
};

TEST_F(MutexWaitsTest, AThreadBlockedOnAHeldMutexIsSeenWaitingUntilItGetsIt) {
  ASSERT_TRUE(mutex_.IsOpen());
  MutexWaits::StartCounting();
  ASSERT_EQ(mutex_.Wait(NamedMutex::kInfinite), NamedMutex::WaitResult::kAcquired);
  EXPECT_EQ(MutexWaits::UnderWay(name_), 0u);  // a wait that is over no longer counts
  std::atomic<bool> owned{false};
  std::thread waiter([this, &owned] {
    NamedMutex same(WideText::FromUtf8(name_).c_str());
    if (same.Wait(NamedMutex::kInfinite) != NamedMutex::WaitResult::kAcquired) return;
    owned = true;
    same.Release();
  });
  EXPECT_TRUE(MutexWaits::AwaitWaiter(name_, ChildLauncher::kBoundMilliseconds));
  EXPECT_EQ(MutexWaits::UnderWay(name_), 1u);
  EXPECT_EQ(MutexWaits::UnderWay(name_ + "x"), 0u);
  EXPECT_FALSE(owned.load());
  EXPECT_TRUE(mutex_.Release());
  waiter.join();
  EXPECT_TRUE(owned.load());
  EXPECT_EQ(MutexWaits::UnderWay(name_), 0u);
}

}  // namespace
}  // namespace Tovrel
