#include "host/MutexObject.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "host/AutoMutex.h"
#include "support/ChildLauncher.h"
#include "support/ChildProcess.h"
#include "support/MutexProbe.h"
#include "support/SharedBlockProbe.h"
#include "support/TempDir.h"

namespace {

using NorvaneSDK::Util::AutoMutex;
using NorvaneSDK::Util::MutexObject;
using Tovrel::PlatformProcess;
using Tovrel::Testing::ChildLauncher;
using Tovrel::Testing::MutexProbe;
using Tovrel::Testing::SharedBlockProbe;
using Tovrel::Testing::TempDir;

// Exit codes of the child roles.
constexpr int kChildAcquired = 0;
constexpr int kChildTimedOut = 2;
constexpr int kChildFailed = 3;

std::uint32_t AcquireElsewhere(const std::wstring& name, std::uint32_t timeout) {
  return MutexProbe::AcquireFromAnotherThread(name, timeout);
}

// Acquire(timeout) of mutex `name` from a child process; its exit code.
int AcquireInAnotherProcess(const std::string& name, std::uint32_t timeout) {
  auto child = ChildLauncher::Start("mutex_try", {name, std::to_string(timeout)});
  return child == nullptr ? kChildFailed : ChildLauncher::Finish(*child);
}

TOVREL_CHILD_ROLE(mutex_try) {
  if (argc < 2) return 99;
  MutexObject mutex(ChildLauncher::Wide(argv[0]).c_str());
  const std::uint32_t result = mutex.Acquire(static_cast<std::uint32_t>(std::atoi(argv[1])));
  if (result == MutexObject::kWaitTimeout) return kChildTimedOut;
  if (result != MutexObject::kWaitObject0) return kChildFailed;
  return mutex.Release() ? kChildAcquired : kChildFailed;
}

// Once marker file argv[3] exists, adds 1 to the counter in block argv[1]
// argv[2] times, each under mutex argv[0]. The counter is read, then written
// after giving the processor up, so that without the lock updates get lost.
TOVREL_CHILD_ROLE(mutex_count) {
  if (argc < 4) return 99;
  MutexObject mutex(ChildLauncher::Wide(argv[0]).c_str());
  SharedBlockProbe block;
  block.Open(ChildLauncher::Wide(argv[1]), sizeof(std::uint64_t));
  if (block.attached != 1 || !ChildLauncher::WaitForFile(argv[3])) return kChildFailed;
  auto* counter = static_cast<volatile std::uint64_t*>(block.memory);
  for (int i = std::atoi(argv[2]); i > 0; --i) {
    AutoMutex hold(mutex);
    if (!hold.IsOwner()) return kChildFailed;
    const std::uint64_t seen = *counter;
    std::this_thread::yield();
    *counter = seen + 1;
  }
  return kChildAcquired;
}

TEST(MutexObjectTest, FreeMutexIsAcquiredAtOnceAndReleased) {
  const std::wstring name = ChildLauncher::UniqueWideName("mutex_free");
  MutexObject mutex(name.c_str());
  ASSERT_TRUE(mutex.IsValid());
  EXPECT_EQ(mutex.GetCreationError(), 0u);
  EXPECT_EQ(mutex.Acquire(0), MutexObject::kWaitObject0);
  EXPECT_TRUE(mutex.Release());
  EXPECT_EQ(AcquireElsewhere(name, 0), MutexObject::kWaitObject0);
}

TEST(MutexObjectTest, ReleaseByAThreadThatDoesNotOwnItIsRefused) {
  const std::wstring name = ChildLauncher::UniqueWideName("mutex_notowner");
  MutexObject mutex(name.c_str());
  EXPECT_FALSE(mutex.Release());
  ASSERT_EQ(mutex.Acquire(0), MutexObject::kWaitObject0);
  EXPECT_FALSE(std::async(std::launch::async, [&] { return mutex.Release(); }).get());
  EXPECT_EQ(AcquireElsewhere(name, 0), MutexObject::kWaitTimeout);
  EXPECT_TRUE(mutex.Release());
  EXPECT_FALSE(mutex.Release());
}

TEST(MutexObjectTest, OwnerMayAcquireAgainAndMustReleaseAsOften) {
  const std::wstring name = ChildLauncher::UniqueWideName("mutex_reentry");
  MutexObject mutex(name.c_str());
  ASSERT_EQ(mutex.Acquire(0), MutexObject::kWaitObject0);
  ASSERT_EQ(mutex.Acquire(0), MutexObject::kWaitObject0);
  EXPECT_EQ(AcquireElsewhere(name, 20), MutexObject::kWaitTimeout);
  EXPECT_TRUE(mutex.Release());
  EXPECT_EQ(AcquireElsewhere(name, 20), MutexObject::kWaitTimeout);
  EXPECT_TRUE(mutex.Release());
  EXPECT_EQ(AcquireElsewhere(name, 0), MutexObject::kWaitObject0);
}

TEST(MutexObjectTest, TwoObjectsOfOneNameAreOneLockReentrantForItsOwner) {
  const std::wstring name = ChildLauncher::UniqueWideName("mutex_twoobjects");
  MutexObject first(name.c_str());
  MutexObject second(name.c_str());
  ASSERT_EQ(first.Acquire(0), MutexObject::kWaitObject0);
  EXPECT_EQ(second.Acquire(0), MutexObject::kWaitObject0);
  EXPECT_TRUE(second.Release());
  EXPECT_EQ(AcquireElsewhere(name, 0), MutexObject::kWaitTimeout);
  EXPECT_TRUE(first.Release());
  EXPECT_EQ(AcquireElsewhere(name, 0), MutexObject::kWaitObject0);
}

TEST(MutexObjectTest, DifferentNamesDoNotExcludeEachOther) {
  const std::string stem = ChildLauncher::UniqueName("mutex_apart");
  MutexObject held(ChildLauncher::Wide(stem + "_a").c_str());
  ASSERT_EQ(held.Acquire(0), MutexObject::kWaitObject0);
  EXPECT_EQ(AcquireElsewhere(ChildLauncher::Wide(stem + "_b"), 0), MutexObject::kWaitObject0);
  EXPECT_TRUE(held.Release());
}

TEST(MutexObjectTest, WaitOnAHeldMutexLastsAtLeastItsTimeout) {
  const std::wstring name = ChildLauncher::UniqueWideName("mutex_timeout");
  MutexObject mutex(name.c_str());
  ASSERT_EQ(mutex.Acquire(0), MutexObject::kWaitObject0);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(AcquireElsewhere(name, 100), MutexObject::kWaitTimeout);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(80));
  EXPECT_TRUE(mutex.Release());
}

TEST(MutexObjectTest, EmptyNameGivesAnInvalidMutexThatNeverLocks) {
  MutexObject mutex(L"");
  EXPECT_FALSE(mutex.IsValid());
  EXPECT_NE(mutex.GetCreationError(), 0u);
  EXPECT_EQ(mutex.Acquire(0), MutexObject::kWaitFailed);
  EXPECT_FALSE(mutex.Release());
}

TEST(MutexObjectTest, NameTheSystemRefusesGivesAnInvalidMutex) {
  // A backslash names a kernel namespace that does not exist on Windows, and
  // a slash a folder that does not exist elsewhere.
  const std::wstring name =
      L"tovrel_no_such_namespace\\" + ChildLauncher::UniqueWideName("mutex_bad") + L"/x";
  MutexObject mutex(name.c_str());
  EXPECT_FALSE(mutex.IsValid());
  EXPECT_NE(mutex.GetCreationError(), 0u);
  EXPECT_EQ(mutex.Acquire(MutexObject::kInfinite), MutexObject::kWaitFailed);
}

TEST(MutexObjectTest, ThreadsIncrementingUnderTheLockLoseNoUpdate) {
  const std::wstring name = ChildLauncher::UniqueWideName("mutex_threads");
  constexpr int kThreads = 4;
  constexpr int kIncrements = 10000;
  volatile std::uint64_t counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      MutexObject mutex(name.c_str());
      for (int i = 0; i < kIncrements; ++i) {
        AutoMutex hold(mutex);
        const std::uint64_t seen = counter;
        std::this_thread::yield();
        counter = seen + 1;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(counter, static_cast<std::uint64_t>(kThreads * kIncrements));
}

TEST(MutexObjectTest, ReentrantHoldKeepsAnotherProcessOutUntilFullyReleased) {
  const std::string name = ChildLauncher::UniqueName("mutex_process_reentry");
  MutexObject mutex(ChildLauncher::Wide(name).c_str());
  ASSERT_EQ(mutex.Acquire(MutexObject::kInfinite), MutexObject::kWaitObject0);
  ASSERT_EQ(mutex.Acquire(MutexObject::kInfinite), MutexObject::kWaitObject0);
  EXPECT_EQ(AcquireInAnotherProcess(name, 0), kChildTimedOut);
  ASSERT_TRUE(mutex.Release());
  EXPECT_EQ(AcquireInAnotherProcess(name, 0), kChildTimedOut);
  ASSERT_TRUE(mutex.Release());
  EXPECT_EQ(AcquireInAnotherProcess(name, 0), kChildAcquired);
}

TEST(MutexObjectTest, FourProcessesIncrementingUnderTheLockLoseNoUpdate) {
  constexpr int kProcesses = 4;
  constexpr int kIncrements = 10000;
  TempDir dir;
  const auto go = dir.Path() / "go";
  const std::string mutexName = ChildLauncher::UniqueName("mutex_count");
  const std::string blockName = ChildLauncher::UniqueName("mutex_count_block");
  SharedBlockProbe block;
  ASSERT_TRUE(block.Open(ChildLauncher::Wide(blockName), sizeof(std::uint64_t)));
  ASSERT_EQ(block.created, 1);
  std::vector<std::unique_ptr<PlatformProcess>> children;
  for (int p = 0; p < kProcesses; ++p) {
    children.push_back(
        ChildLauncher::Start("mutex_count", {mutexName, blockName, std::to_string(kIncrements), go.string()}));
    ASSERT_NE(children.back(), nullptr);
  }
  ChildLauncher::Signal(go);
  for (auto& child : children) EXPECT_EQ(ChildLauncher::Finish(*child), kChildAcquired);
  MutexObject mutex(ChildLauncher::Wide(mutexName).c_str());
  AutoMutex hold(mutex);
  EXPECT_EQ(*static_cast<volatile std::uint64_t*>(block.memory),
            static_cast<std::uint64_t>(kProcesses * kIncrements));
}

TEST(MutexObjectTest, HolderKilledWhileHoldingDoesNotBlockTheNextAcquirer) {
  TempDir dir;
  const std::string name = ChildLauncher::UniqueName("mutex_killed");
  auto child = MutexProbe::StartHolder(name, dir.Path());
  ASSERT_NE(child, nullptr);
  MutexObject mutex(ChildLauncher::Wide(name).c_str());
  EXPECT_EQ(mutex.Acquire(0), MutexObject::kWaitTimeout);
  ASSERT_TRUE(child->Kill());
  EXPECT_EQ(ChildLauncher::Finish(*child), PlatformProcess::kKilledExitCode);
  // Windows reports the dead owner once (the caller owns the mutex then);
  // POSIX hands the lock on without a word.
  const std::uint32_t result = mutex.Acquire(ChildLauncher::kBoundMilliseconds);
  EXPECT_TRUE(result == MutexObject::kWaitObject0 || result == MutexObject::kWaitAbandoned) << result;
  EXPECT_TRUE(mutex.Release());
  EXPECT_EQ(AcquireElsewhere(ChildLauncher::Wide(name), 0), MutexObject::kWaitObject0);
}

TEST(AutoMutexTest, HoldsTheMutexForItsScope) {
  const std::wstring name = ChildLauncher::UniqueWideName("automutex_scope");
  MutexObject mutex(name.c_str());
  {
    AutoMutex hold(mutex);
    EXPECT_EQ(hold.GetResult(), MutexObject::kWaitObject0);
    EXPECT_TRUE(hold.IsOwner());
    EXPECT_EQ(AcquireElsewhere(name, 0), MutexObject::kWaitTimeout);
  }
  EXPECT_EQ(AcquireElsewhere(name, 0), MutexObject::kWaitObject0);
}

TEST(AutoMutexTest, NestedScopesOnOneMutexReleaseOnlyAtTheOuterEnd) {
  const std::wstring name = ChildLauncher::UniqueWideName("automutex_nested");
  MutexObject mutex(name.c_str());
  {
    AutoMutex outer(mutex);
    { AutoMutex inner(mutex); }
    EXPECT_EQ(AcquireElsewhere(name, 0), MutexObject::kWaitTimeout);
  }
  EXPECT_EQ(AcquireElsewhere(name, 0), MutexObject::kWaitObject0);
}

TEST(AutoMutexTest, FailedAcquisitionReleasesNothing) {
  MutexObject invalid(L"");
  {
    AutoMutex hold(invalid);
    EXPECT_EQ(hold.GetResult(), MutexObject::kWaitFailed);
    EXPECT_FALSE(hold.IsOwner());
  }
  EXPECT_FALSE(invalid.Release());
}

}  // namespace
