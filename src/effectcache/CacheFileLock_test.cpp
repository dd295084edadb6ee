#include "effectcache/CacheFileLock.h"

#include <gtest/gtest.h>

#include <future>
#include <new>

#include "effectcache/CacheFileNames.h"
#include "host/MutexObject.h"
#include "support/AllocationFaults.h"
#include "support/TempDir.h"

namespace Tovrel {
namespace {

TEST(CacheFileLockTest, AHoldMovesTheCounterAndItsEndIsWhatReadersCompareWith) {
  Testing::TempDir dir;
  const std::wstring file = dir.File("norvaneFxoCache.dat");
  CacheFileLock lock(file);
  CacheFileLock other(file);
  EXPECT_EQ(lock.LastRelease(), CacheFileLock::kUnknown);
  std::uint64_t released = 0;
  {
    CacheFileLock::Hold hold(lock);
    ASSERT_TRUE(hold.IsOwner());
    EXPECT_EQ(lock.Observe() % 2, 1u);  // odd while held
  }
  released = lock.LastRelease();
  EXPECT_EQ(released % 2, 0u);
  EXPECT_EQ(lock.Observe(), released);
  {
    CacheFileLock::Hold hold(other);
    ASSERT_TRUE(hold.IsOwner());
  }
  EXPECT_NE(lock.Observe(), released) << "another holder's hold went unnoticed";
  EXPECT_EQ(other.LastRelease(), other.Observe());
}

TEST(CacheFileLockTest, NestedHoldsMoveTheCounterOnceWhateverObjectMadeThem) {
  Testing::TempDir dir;
  const std::wstring file = dir.File("norvaneFxoCache.dat");
  CacheFileLock lock(file);
  CacheFileLock other(file);
  {
    CacheFileLock::Hold outer(lock);
    ASSERT_TRUE(outer.IsOwner());
    const std::uint64_t during = lock.Observe();
    {
      CacheFileLock::Hold inner(other);
      ASSERT_TRUE(inner.IsOwner());
      CacheFileLock::Hold again(lock);
      ASSERT_TRUE(again.IsOwner());
    }
    EXPECT_EQ(lock.Observe(), during) << "an inner hold's end made the counter even while the outer one writes";
    EXPECT_EQ(other.LastRelease(), CacheFileLock::kUnknown);
  }
  EXPECT_EQ(lock.Observe() % 2, 0u);
  EXPECT_EQ(lock.LastRelease(), lock.Observe());
}

TEST(CacheFileLockTest, AHoldThatOnlyReadsLeavesTheCounterUnlessItWritesOrFindsItOdd) {
  Testing::TempDir dir;
  const std::wstring file = dir.File("norvaneFxoCache.dat");
  CacheFileLock lock(file);
  CacheFileLock other(file);
  {
    CacheFileLock::Hold hold(lock);
  }
  const std::uint64_t released = lock.LastRelease();
  {
    CacheFileLock::Hold read(other, CacheFileLock::Intent::kRead);
    ASSERT_TRUE(read.IsOwner());
    EXPECT_EQ(other.Observe(), released) << "a read hold moved the counter";
  }
  EXPECT_EQ(lock.Observe(), released) << "a search by another reader sent this one to the lock";
  EXPECT_EQ(other.LastRelease(), released);
  {
    CacheFileLock::Hold read(other, CacheFileLock::Intent::kRead);
    EXPECT_TRUE(other.HeldElsewhereSince() == false);
    other.WillWrite();
    EXPECT_EQ(other.Observe() % 2, 1u);
    other.WillWrite();  // once per hold
    EXPECT_EQ(other.Observe(), released + 1);
  }
  EXPECT_EQ(other.Observe(), released + 2);
  {
    CacheFileLock::Hold read(lock, CacheFileLock::Intent::kRead);
    EXPECT_TRUE(lock.HeldElsewhereSince()) << "another holder wrote since this one's last hold";
  }
  EXPECT_FALSE([&] {
    CacheFileLock::Hold read(lock, CacheFileLock::Intent::kRead);
    return lock.HeldElsewhereSince();
  }());
}

TEST(CacheFileLockTest, AReadHoldEvensUpACounterThatADeadWriterLeftOdd) {
  Testing::TempDir dir;
  const std::wstring file = dir.File("norvaneFxoCache.dat");
  CacheFileLock lock(file);
  {
    CacheFileLock::Hold hold(lock);
  }
  SaveCounter dead;
  ASSERT_TRUE(dead.Initialize(CacheFileNames::SaveCounterName(file).c_str()));
  const std::uint64_t odd = dead.Begin();  // a writer that died holding the lock
  {
    CacheFileLock::Hold read(lock, CacheFileLock::Intent::kRead);
    EXPECT_TRUE(lock.HeldElsewhereSince());
  }
  EXPECT_EQ(lock.LastRelease(), odd + 1);
  EXPECT_EQ(lock.Observe(), odd + 1);
}

// True when another thread can take the file's named mutex within a while.
bool OthersCanTake(const std::wstring& file) {
  return std::async(std::launch::async, [&file] {
           NorvaneSDK::Util::MutexObject mutex(CacheFileNames::FileMutexName(file).c_str());
           const std::uint32_t result = mutex.Acquire(5000);
           const bool taken = result == NorvaneSDK::Util::MutexObject::kWaitObject0 ||
                              result == NorvaneSDK::Util::MutexObject::kWaitAbandoned;
           if (taken) mutex.Release();
           return taken;
         }).get();
}

TEST(CacheFileLockTest, AHoldThatRunsOutOfMemoryLetsTheMutexGo) {
  Testing::TempDir dir;
  const std::wstring file = dir.File("norvaneFxoCache.dat");
  std::uint64_t allocations = 0;
  {
    CacheFileLock lock(file);
    Testing::AllocationFaultScope scope;
    Testing::AllocationFaults::StartCounting();
    CacheFileLock::Hold hold(lock, CacheFileLock::Intent::kWrite);
    allocations = Testing::AllocationFaults::Count();
    ASSERT_TRUE(hold.IsOwner());
  }
  ASSERT_GT(allocations, 0u);
  int failed = 0;
  for (std::uint64_t k = 1; k <= allocations; ++k) {
    CacheFileLock lock(file);
    {
      Testing::AllocationFaultScope scope;
      Testing::AllocationFaults::FailNth(k);
      try {
        CacheFileLock::Hold hold(lock, CacheFileLock::Intent::kWrite);
      } catch (const std::bad_alloc&) {
      }
      failed += Testing::AllocationFaults::Fired() ? 1 : 0;
    }
    EXPECT_TRUE(OthersCanTake(file)) << "allocation " << k << " left the mutex held";
    CacheFileLock::Hold after(lock);
    EXPECT_TRUE(after.IsOwner());
  }
  EXPECT_GT(failed, 0);
}

}  // namespace
}  // namespace Tovrel
