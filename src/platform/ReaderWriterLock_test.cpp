#include "platform/ReaderWriterLock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <vector>

namespace Tovrel {
namespace {

TEST(ReaderWriterLockTest, ReadersHoldItTogether) {
  ReaderWriterLock lock;
  std::atomic<int> inside{0};
  std::atomic<int> most{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < 3; ++t) {
    readers.emplace_back([&] {
      std::shared_lock<ReaderWriterLock> shared(lock);
      const int now = ++inside;
      for (int seen = most.load(); now > seen && !most.compare_exchange_weak(seen, now);) {
      }
      // Each reader stays until all three are in: with exclusive readers
      // this would never end, so it is bounded and judged below.
      const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
      while (most.load() < 3 && std::chrono::steady_clock::now() < until) std::this_thread::yield();
      --inside;
    });
  }
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(most.load(), 3);
}

TEST(ReaderWriterLockTest, ATryForSharedModeFailsOnlyWhileAWriterHoldsIt) {
  ReaderWriterLock lock;
  ASSERT_TRUE(lock.try_lock_shared());
  // Other readers get in beside a reader.
  std::thread([&] {
    std::shared_lock<ReaderWriterLock> shared(lock, std::try_to_lock);
    EXPECT_TRUE(shared.owns_lock());
  }).join();
  lock.unlock_shared();
  lock.lock();
  std::thread([&] {
    std::shared_lock<ReaderWriterLock> shared(lock, std::try_to_lock);
    EXPECT_FALSE(shared.owns_lock());
  }).join();
  lock.unlock();
  std::shared_lock<ReaderWriterLock> again(lock, std::try_to_lock);
  EXPECT_TRUE(again.owns_lock());
}

TEST(ReaderWriterLockTest, AWriterIsAloneAndIsNotKeptOutByReadersThatKeepComing) {
  ReaderWriterLock lock;
  std::atomic<bool> stop{false};
  std::atomic<int> readersInside{0};
  std::atomic<int> overlaps{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < 3; ++t) {
    readers.emplace_back([&] {
      while (!stop.load()) {
        std::shared_lock<ReaderWriterLock> shared(lock);
        ++readersInside;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        --readersInside;
      }
    });
  }
  int writes = 0;
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (writes < 50 && std::chrono::steady_clock::now() < until) {
    std::lock_guard<ReaderWriterLock> exclusive(lock);
    if (readersInside.load() != 0) ++overlaps;
    ++writes;
  }
  stop.store(true);
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(writes, 50) << "readers that kept coming held the writer off";
  EXPECT_EQ(overlaps.load(), 0);
}

}  // namespace
}  // namespace Tovrel
