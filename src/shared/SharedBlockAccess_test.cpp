#include "shared/SharedBlockAccess.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "host/MutexObject.h"
#include "pagefile/OutOfMemoryException.h"
#include "support/ChildLauncher.h"
#include "support/MutexProbe.h"
#include "support/SharedBlockProbe.h"
#include "support/TempDir.h"

namespace Tovrel {
namespace {

using Testing::ChildLauncher;
using Testing::MutexProbe;

TEST(SharedBlockAccessTest, AnInitializeThatSucceedsRunsOnce) {
  int calls = 0;
  EXPECT_TRUE(SharedBlockAccess::Open([&calls] { return ++calls > 0; }));
  EXPECT_EQ(calls, 1);
  EXPECT_FALSE(SharedBlockAccess::Open([&calls] { return ++calls < 0; }));
  EXPECT_EQ(calls, 2);
}

TEST(SharedBlockAccessTest, AFailedSystemCallIsTriedOnceMore) {
  int calls = 0;
  EXPECT_TRUE(SharedBlockAccess::Open([&calls] {
    if (++calls == 1) throw Win32APICallFailedException(0);
    return true;
  }));
  EXPECT_EQ(calls, 2);
}

TEST(SharedBlockAccessTest, ASecondFailureLeaves) {
  int calls = 0;
  EXPECT_THROW(SharedBlockAccess::Open([&calls]() -> bool {
                 ++calls;
                 throw Win32APICallFailedException(5);
               }),
               Win32APICallFailedException);
  EXPECT_EQ(calls, 2);
}

TEST(SharedBlockAccessTest, WantOfMemoryIsNotTriedAgain) {
  int calls = 0;
  EXPECT_THROW(SharedBlockAccess::Open([&calls]() -> bool {
                 ++calls;
                 throw OutOfMemoryException();
               }),
               OutOfMemoryException);
  EXPECT_EQ(calls, 1);
}

TEST(SharedBlockAccessTest, ABlockWhoseMutexAKilledHolderLeftOpensAttachesAndLocks) {
  Testing::TempDir dir;
  const std::wstring name = ChildLauncher::UniqueWideName("access_dead_holder");
  const std::wstring mutex = name + L"_mutex";
  Testing::SharedBlockProbe first(0x21);
  ASSERT_TRUE(first.Open(name, 64));
  ASSERT_TRUE(MutexProbe::KillAHolder(mutex, dir.Path()));
  // Windows reports the mutex abandoned to the first Initialize after the
  // death, which throws; POSIX hands the lock on without a word.
  Testing::SharedBlockProbe second;
  int calls = 0;
  EXPECT_TRUE(SharedBlockAccess::Open([&] {
    ++calls;
    return second.Open(name, 64);
  }));
  EXPECT_LE(calls, 2);
  EXPECT_EQ(second.attached, 1);
  EXPECT_EQ(second.foundOnAttach, Testing::SharedBlockProbe::FillPattern(0x21, 64));
  EXPECT_EQ(MutexProbe::AcquireFromAnotherThread(mutex, 0), NorvaneSDK::Util::MutexObject::kWaitObject0);
  // And Lock, the next time a holder dies with it: the block, held.
  ASSERT_TRUE(MutexProbe::KillAHolder(mutex, dir.Path()));
  void* address = SharedBlockAccess::Lock(second);
  ASSERT_NE(address, nullptr);
  EXPECT_EQ(*static_cast<std::uint8_t*>(address), 0x21);
  EXPECT_EQ(MutexProbe::AcquireFromAnotherThread(mutex, 0), NorvaneSDK::Util::MutexObject::kWaitTimeout);
  second.Unlock();
  EXPECT_EQ(MutexProbe::AcquireFromAnotherThread(mutex, 0), NorvaneSDK::Util::MutexObject::kWaitObject0);
}

TEST(SharedBlockAccessTest, LockBeforeInitializeGivesNothingAndHoldsNothing) {
  Testing::SharedBlockProbe block;
  EXPECT_EQ(SharedBlockAccess::Lock(block), nullptr);
  block.Unlock();
}

}  // namespace
}  // namespace Tovrel
