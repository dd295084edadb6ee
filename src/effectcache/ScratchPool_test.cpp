#include "effectcache/ScratchPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "support/AllocationFaults.h"

namespace Tovrel {
namespace {

// Counts the objects alive, to see what the pool makes and frees.
struct Counted {
  static std::atomic<int> alive;
  Counted() { ++alive; }
  ~Counted() { --alive; }
  int uses = 0;
};
std::atomic<int> Counted::alive{0};

TEST(ScratchPoolTest, AGivenBackObjectServesTheNextBorrower) {
  {
    ScratchPool<Counted> pool;
    Counted* first = nullptr;
    {
      auto lease = pool.Borrow();
      first = lease.Get();
      ASSERT_NE(first, nullptr);
      ++lease->uses;
      EXPECT_EQ(pool.Idle(), 0u);
    }
    EXPECT_EQ(pool.Idle(), 1u);
    auto again = pool.Borrow();
    EXPECT_EQ(again.Get(), first);
    EXPECT_EQ(again->uses, 1);
    EXPECT_EQ(Counted::alive.load(), 1);
  }
  EXPECT_EQ(Counted::alive.load(), 0) << "a lease ended after its pool was destroyed";
}

TEST(ScratchPoolTest, LeasesHeldAtOnceHaveObjectsOfTheirOwn) {
  ScratchPool<Counted> pool;
  auto a = pool.Borrow();
  auto b = pool.Borrow();
  EXPECT_NE(a.Get(), b.Get());
  EXPECT_EQ(Counted::alive.load(), 2);
}

TEST(ScratchPoolTest, KeepsAtMostItsSlotsAndFreesTheRestAndAllAtTheEnd) {
  {
    ScratchPool<Counted> pool;
    {
      std::vector<ScratchPool<Counted>::Lease> leases;
      for (std::size_t i = 0; i < ScratchPool<Counted>::kSlots + 5; ++i) leases.push_back(pool.Borrow());
      EXPECT_EQ(Counted::alive.load(), static_cast<int>(ScratchPool<Counted>::kSlots + 5));
    }
    EXPECT_EQ(pool.Idle(), ScratchPool<Counted>::kSlots);
    EXPECT_EQ(Counted::alive.load(), static_cast<int>(ScratchPool<Counted>::kSlots));
  }
  EXPECT_EQ(Counted::alive.load(), 0);
}

TEST(ScratchPoolTest, ALeaseMovedGivesItsObjectBackOnce) {
  ScratchPool<Counted> pool;
  {
    auto lease = pool.Borrow();
    ScratchPool<Counted>::Lease moved(std::move(lease));
    EXPECT_EQ(lease.Get(), nullptr);
    EXPECT_NE(moved.Get(), nullptr);
  }
  EXPECT_EQ(pool.Idle(), 1u);
}

TEST(ScratchPoolTest, NoMemoryGivesAnEmptyLeaseNotAnException) {
  ScratchPool<Counted> pool;
  Testing::AllocationFaults::FailNth(1);
  auto lease = pool.Borrow();
  Testing::AllocationFaults::Stop();
  EXPECT_EQ(lease.Get(), nullptr);
  EXPECT_EQ(Counted::alive.load(), 0);
}

TEST(ScratchPoolTest, ThreadsBorrowingAtOnceNeverShareAnObject) {
  ScratchPool<Counted> pool;
  std::atomic<int> shared{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int round = 0; round < 2000; ++round) {
        auto lease = pool.Borrow();
        // An object borrowed by two threads at once would show the other's
        // mark here.
        if (lease->uses != 0) ++shared;
        lease->uses = 1;
        lease->uses = 0;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(shared.load(), 0);
  EXPECT_LE(pool.Idle(), 4u);
}

}  // namespace
}  // namespace Tovrel
