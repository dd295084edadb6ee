#include "platform/ThreadPriority.h"

#include <gtest/gtest.h>

#include <thread>

namespace Tovrel {
namespace {

TEST(ThreadPriorityTest, ALoweredThreadStaysLoweredAndOthersDoNot) {
  const bool before = ThreadPriority::CurrentThreadIsLowered();
  bool lowered = false;
  bool stays = false;
  std::thread worker([&] {
    lowered = ThreadPriority::LowerCurrentThread();
    stays = ThreadPriority::LowerCurrentThread() && ThreadPriority::CurrentThreadIsLowered();
  });
  worker.join();
  EXPECT_TRUE(lowered);
  EXPECT_TRUE(stays);
  EXPECT_EQ(ThreadPriority::CurrentThreadIsLowered(), before) << "lowering a thread changed the test's thread too";
}

}  // namespace
}  // namespace Tovrel
