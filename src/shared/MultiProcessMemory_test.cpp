#include "tovrel/MultiProcessMemory.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "host/MutexObject.h"
#include "pagefile/Win32APICallFailedException.h"
#include "platform/SharedMemoryMapping.h"
#include "support/ChildLauncher.h"
#include "support/ChildProcess.h"
#include "support/MutexProbe.h"
#include "support/SharedBlockProbe.h"
#include "support/TempDir.h"

namespace {

using NorvaneSDK::Util::MutexObject;
using Tovrel::MultiProcessMemory;
using Tovrel::PlatformProcess;
using Tovrel::SharedMemoryMapping;
using Tovrel::Win32APICallFailedException;
using Tovrel::Testing::ChildLauncher;
using Tovrel::Testing::MutexProbe;
using Tovrel::Testing::SharedBlockProbe;
using Tovrel::Testing::TempDir;

constexpr std::size_t kBlockBytes = 64;
constexpr std::uint8_t kSeed = 0x5A;

// Exit codes of the child roles.
constexpr int kChildOk = 0;
constexpr int kChildCreated = 1;
constexpr int kChildAttached = 2;
constexpr int kChildWrongBytes = 3;
constexpr int kChildThrew = 4;

std::wstring UniqueName(const std::string& stem) { return ChildLauncher::UniqueWideName(stem); }

std::uint32_t AcquireElsewhere(const std::wstring& name) {
  return MutexProbe::AcquireFromAnotherThread(name, 0);
}

// Opens block argv[0] of kBlockBytes and reports which hook ran; an
// attachment must find the pattern of seed kSeed.
TOVREL_CHILD_ROLE(block_open) {
  if (argc < 1) return 99;
  try {
    SharedBlockProbe block;
    block.Open(ChildLauncher::Wide(argv[0]), kBlockBytes);
    if (block.created == 1) return kChildCreated;
    if (block.foundOnAttach != SharedBlockProbe::FillPattern(kSeed, kBlockBytes)) return kChildWrongBytes;
    return kChildAttached;
  } catch (const std::exception&) {
    return kChildThrew;
  }
}

// Creates block argv[0], creates marker file argv[1] and holds on until killed.
TOVREL_CHILD_ROLE(block_hold) {
  if (argc < 2) return 99;
  SharedBlockProbe block(kSeed);
  block.Open(ChildLauncher::Wide(argv[0]), kBlockBytes);
  if (block.created != 1) return kChildAttached;
  ChildLauncher::Signal(argv[1]);
  std::this_thread::sleep_for(std::chrono::milliseconds(ChildLauncher::kBoundMilliseconds));
  return kChildOk;
}

int OpenInAnotherProcess(const std::wstring& name) {
  auto child = ChildLauncher::Start("block_open", {ChildLauncher::Narrow(name)});
  return child == nullptr ? -1 : ChildLauncher::Finish(*child);
}

TEST(MultiProcessMemoryTest, FirstInitializeCreatesAZeroFilledBlock) {
  SharedBlockProbe block(kSeed);
  ASSERT_TRUE(block.Open(UniqueName("shm_first"), kBlockBytes));
  EXPECT_EQ(block.created, 1);
  EXPECT_EQ(block.attached, 0);
  EXPECT_TRUE(block.createdZeroFilled);
  EXPECT_NE(block.memory, nullptr);
}

TEST(MultiProcessMemoryTest, SecondObjectInTheProcessAttachesToTheFirstOnesBytes) {
  const std::wstring name = UniqueName("shm_second_object");
  SharedBlockProbe first(kSeed);
  SharedBlockProbe second;
  ASSERT_TRUE(first.Open(name, kBlockBytes));
  ASSERT_TRUE(second.Open(name, kBlockBytes));
  EXPECT_EQ(second.created, 0);
  EXPECT_EQ(second.attached, 1);
  EXPECT_EQ(second.foundOnAttach, SharedBlockProbe::FillPattern(kSeed, kBlockBytes));
  static_cast<std::uint8_t*>(second.memory)[3] = 0xEE;
  EXPECT_EQ(static_cast<std::uint8_t*>(first.memory)[3], 0xEE);
}

TEST(MultiProcessMemoryTest, SecondProcessAttachesToTheFirstProcessesBytes) {
  const std::wstring name = UniqueName("shm_second_process");
  SharedBlockProbe first(kSeed);
  ASSERT_TRUE(first.Open(name, kBlockBytes));
  EXPECT_EQ(OpenInAnotherProcess(name), kChildAttached);
}

TEST(MultiProcessMemoryTest, GetBytesIsZeroAfterInitialize) {
  SharedBlockProbe block;
  EXPECT_EQ(block.GetBytes(), 0u);
  ASSERT_TRUE(block.Open(UniqueName("shm_bytes"), 24));
  EXPECT_EQ(block.GetBytes(), 0u);
}

TEST(MultiProcessMemoryTest, NeverInitializedObjectLocksNothing) {
  SharedBlockProbe block;
  EXPECT_EQ(block.Lock(MultiProcessMemory::kInfinite), nullptr);
  block.Unlock();
  EXPECT_EQ(block.Lock(0), nullptr);
  EXPECT_EQ(block.GetBytes(), 0u);
}

TEST(MultiProcessMemoryTest, NullNameIsRefused) {
  SharedBlockProbe block;
  EXPECT_FALSE(block.OpenRaw(nullptr, kBlockBytes));
  EXPECT_EQ(block.created + block.attached, 0);
  EXPECT_EQ(block.Lock(0), nullptr);
}

TEST(MultiProcessMemoryTest, LockHoldsTheBlocksMutexAndReturnsTheBlock) {
  const std::wstring name = UniqueName("shm_lock");
  SharedBlockProbe block;
  ASSERT_TRUE(block.Open(name, kBlockBytes));
  EXPECT_EQ(block.Lock(MultiProcessMemory::kInfinite), block.memory);
  EXPECT_EQ(AcquireElsewhere(name + L"_mutex"), MutexObject::kWaitTimeout);
  EXPECT_EQ(block.Lock(0), block.memory);
  block.Unlock();
  EXPECT_EQ(AcquireElsewhere(name + L"_mutex"), MutexObject::kWaitTimeout);
  block.Unlock();
  EXPECT_EQ(AcquireElsewhere(name + L"_mutex"), MutexObject::kWaitObject0);
}

TEST(MultiProcessMemoryTest, LockThatTimesOutStillReturnsTheBlock) {
  const std::wstring name = UniqueName("shm_lock_timeout");
  SharedBlockProbe block;
  ASSERT_TRUE(block.Open(name, kBlockBytes));
  MutexObject other((name + L"_mutex").c_str());
  std::promise<void> held;
  std::promise<void> done;
  std::thread holder([&] {
    other.Acquire(MutexObject::kInfinite);
    held.set_value();
    done.get_future().wait();
    other.Release();
  });
  held.get_future().wait();
  EXPECT_EQ(block.Lock(10), block.memory);
  block.Unlock();
  EXPECT_EQ(AcquireElsewhere(name + L"_mutex"), MutexObject::kWaitTimeout);
  done.set_value();
  holder.join();
  EXPECT_EQ(AcquireElsewhere(name + L"_mutex"), MutexObject::kWaitObject0);
}

TEST(MultiProcessMemoryTest, InitializeAgainGivesTheFirstBlockAndMutexUp) {
  const std::wstring first = UniqueName("shm_again_first");
  const std::wstring second = UniqueName("shm_again_second");
  SharedBlockProbe block;
  ASSERT_TRUE(block.Open(first, kBlockBytes));
  ASSERT_EQ(block.Lock(MultiProcessMemory::kInfinite), block.memory);
  ASSERT_TRUE(block.Open(second, kBlockBytes));
  EXPECT_EQ(block.created, 2);
  EXPECT_EQ(AcquireElsewhere(first + L"_mutex"), MutexObject::kWaitObject0);
  SharedBlockProbe later;
  ASSERT_TRUE(later.Open(first, kBlockBytes));
  EXPECT_EQ(later.created, 1);
}

TEST(MultiProcessMemoryTest, InitializeAgainOnTheSameNameAsOnlyHolderCreatesAfresh) {
  const std::wstring name = UniqueName("shm_again_same");
  SharedBlockProbe block(kSeed);
  ASSERT_TRUE(block.Open(name, kBlockBytes));
  ASSERT_TRUE(block.Open(name, kBlockBytes));
  EXPECT_EQ(block.created, 2);
  EXPECT_EQ(block.attached, 0);
  EXPECT_TRUE(block.createdZeroFilled);
}

TEST(MultiProcessMemoryTest, BlockLivesWhileAnyHolderRemains) {
  const std::wstring name = UniqueName("shm_outlives");
  auto creator = std::make_unique<SharedBlockProbe>(kSeed);
  SharedBlockProbe keeper;
  ASSERT_TRUE(creator->Open(name, kBlockBytes));
  ASSERT_TRUE(keeper.Open(name, kBlockBytes));
  creator.reset();
  SharedBlockProbe later;
  ASSERT_TRUE(later.Open(name, kBlockBytes));
  EXPECT_EQ(later.attached, 1);
  EXPECT_EQ(later.foundOnAttach, SharedBlockProbe::FillPattern(kSeed, kBlockBytes));
}

TEST(MultiProcessMemoryTest, AfterEveryHolderClosedTheNextInitializeCreatesAfresh) {
  const std::wstring name = UniqueName("shm_lifetime");
  {
    SharedBlockProbe first(kSeed);
    SharedBlockProbe second;
    ASSERT_TRUE(first.Open(name, kBlockBytes));
    ASSERT_TRUE(second.Open(name, kBlockBytes));
  }
  SharedBlockProbe again;
  ASSERT_TRUE(again.Open(name, kBlockBytes));
  EXPECT_EQ(again.created, 1);
  EXPECT_TRUE(again.createdZeroFilled);
}

TEST(MultiProcessMemoryTest, BlockOfAProcessThatEndedIsCreatedAfresh) {
  const std::wstring name = UniqueName("shm_child_ended");
  EXPECT_EQ(OpenInAnotherProcess(name), kChildCreated);
  EXPECT_EQ(OpenInAnotherProcess(name), kChildCreated);
  SharedBlockProbe block;
  ASSERT_TRUE(block.Open(name, kBlockBytes));
  EXPECT_EQ(block.created, 1);
}

TEST(MultiProcessMemoryTest, BlockOfAKilledHolderIsCreatedAfresh) {
  TempDir dir;
  const std::wstring name = UniqueName("shm_killed");
  const auto ready = dir.Path() / "holding";
  auto child = ChildLauncher::Start("block_hold", {ChildLauncher::Narrow(name), ready.string()});
  ASSERT_NE(child, nullptr);
  ASSERT_TRUE(ChildLauncher::WaitForFile(ready, *child));
  EXPECT_EQ(OpenInAnotherProcess(name), kChildAttached);
  ASSERT_TRUE(child->Kill());
  EXPECT_EQ(ChildLauncher::Finish(*child), PlatformProcess::kKilledExitCode);
  SharedBlockProbe block;
  ASSERT_TRUE(block.Open(name, kBlockBytes));
  EXPECT_EQ(block.created, 1);
  EXPECT_TRUE(block.createdZeroFilled);
}

// A backslash names a kernel namespace that does not exist on Windows, and
// a slash a folder that does not exist elsewhere.
std::wstring UnusableName(const std::string& stem) {
  return L"tovrel_no_such_namespace\\" + UniqueName(stem) + L"/x";
}

TEST(MultiProcessMemoryTest, MutexThatCannotBeMadeThrowsWithTheSystemError) {
  SharedBlockProbe block;
  try {
    block.Open(UnusableName("shm_bad_mutex"), kBlockBytes);
    ADD_FAILURE() << "a mutex with an unusable name was made";
  } catch (const Win32APICallFailedException& failure) {
    EXPECT_NE(failure.errorCode, 0u);
  }
  EXPECT_EQ(block.created + block.attached, 0);
  EXPECT_EQ(block.Lock(0), nullptr);
  block.Unlock();
}

TEST(MultiProcessMemoryTest, BlockThatCannotBeCreatedThrowsWithTheSystemError) {
  const std::wstring name = UniqueName("shm_zero_size");
  SharedBlockProbe block;
  try {
    block.Open(name, 0);
    ADD_FAILURE() << "a block of 0 bytes was created";
  } catch (const Win32APICallFailedException& failure) {
    EXPECT_NE(failure.errorCode, 0u);
  }
  EXPECT_EQ(AcquireElsewhere(name + L"_mutex"), MutexObject::kWaitObject0);
}

TEST(MultiProcessMemoryTest, ViewLargerThanTheExistingBlockThrowsAndReleasesTheMutex) {
  const std::wstring name = UniqueName("shm_too_small");
  SharedBlockProbe small;
  ASSERT_TRUE(small.Open(name, 16));
  SharedBlockProbe large;
  EXPECT_THROW(large.Open(name, 1 << 20), Win32APICallFailedException);
  EXPECT_EQ(AcquireElsewhere(name + L"_mutex"), MutexObject::kWaitObject0);
  EXPECT_EQ(large.created + large.attached, 0);
}

TEST(MultiProcessMemoryTest, NameOf300CharactersWorks) {
  if (SharedMemoryMapping::MaxNameLength() < 300) GTEST_SKIP() << "names are limited on this system";
  const std::string stem = ChildLauncher::UniqueName("shm_long");
  const std::wstring name = ChildLauncher::Wide(stem + std::string(300 - stem.size(), 'L'));
  ASSERT_EQ(name.size(), 300u);
  SharedBlockProbe first(kSeed);
  ASSERT_TRUE(first.Open(name, kBlockBytes));
  EXPECT_EQ(first.created, 1);
  EXPECT_EQ(OpenInAnotherProcess(name), kChildAttached);
}

TEST(MultiProcessMemoryTest, LongNamesDifferingOnlyInTheLastCharacterDoNotCollide) {
  if (SharedMemoryMapping::MaxNameLength() < 300) GTEST_SKIP() << "names are limited on this system";
  const std::string stem = ChildLauncher::UniqueName("shm_long_pair");
  const std::wstring common = ChildLauncher::Wide(stem + std::string(299 - stem.size(), 'P'));
  SharedBlockProbe a(kSeed);
  SharedBlockProbe b;
  ASSERT_TRUE(a.Open(common + L"a", kBlockBytes));
  ASSERT_TRUE(b.Open(common + L"b", kBlockBytes));
  EXPECT_EQ(b.created, 1);
  EXPECT_TRUE(b.createdZeroFilled);
  ASSERT_EQ(a.Lock(MultiProcessMemory::kInfinite), a.memory);
  EXPECT_EQ(AcquireElsewhere(common + L"b_mutex"), MutexObject::kWaitObject0);
  EXPECT_EQ(AcquireElsewhere(common + L"a_mutex"), MutexObject::kWaitTimeout);
  a.Unlock();
}

}  // namespace
