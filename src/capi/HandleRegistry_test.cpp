#include "capi/HandleRegistry.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

struct Counted {
  explicit Counted(std::atomic<int>* alive) : alive_(alive) { ++*alive_; }
  ~Counted() { --*alive_; }
  std::atomic<int>* alive_;
};

TEST(CHandleRegistryTest, FindsLiveHandlesOnlyAndKeepsAnObjectWhileACallHoldsIt) {
  std::atomic<int> alive{0};
  auto& registry = Tovrel::HandleRegistry<Counted>::Instance();
  auto made = std::make_shared<Counted>(&alive);
  Counted* const object = made.get();
  Counted* handle = registry.Add(std::move(made));
  EXPECT_EQ(alive.load(), 1);
  EXPECT_EQ(registry.Find(nullptr), nullptr);
  Counted stranger(&alive);
  EXPECT_EQ(registry.Find(&stranger), nullptr);
  std::shared_ptr<Counted> held = registry.Find(handle);
  ASSERT_EQ(held.get(), object);
  EXPECT_NE(registry.Remove(handle), nullptr);
  EXPECT_EQ(registry.Find(handle), nullptr);
  EXPECT_EQ(registry.Remove(handle), nullptr);
  EXPECT_EQ(alive.load(), 2) << "the call still holds the closed object";
  held.reset();
  EXPECT_EQ(alive.load(), 1);
}

TEST(CHandleRegistryTest, AHandleIsNeverGivenOutTwiceThoughMemoryIsReused) {
  std::atomic<int> alive{0};
  auto& registry = Tovrel::HandleRegistry<Counted>::Instance();
  Counted* first = registry.Add(std::make_shared<Counted>(&alive));
  registry.Remove(first);
  for (int i = 0; i < 100; ++i) {
    Counted* next = registry.Add(std::make_shared<Counted>(&alive));
    EXPECT_NE(next, first);
    EXPECT_EQ(registry.Find(first), nullptr);
    registry.Remove(next);
  }
  EXPECT_EQ(alive.load(), 0);
}

TEST(CHandleRegistryTest, ThreadsAddFindAndRemoveAtOnce) {
  std::atomic<int> alive{0};
  auto& registry = Tovrel::HandleRegistry<Counted>::Instance();
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 500; ++i) {
        auto made = std::make_shared<Counted>(&alive);
        Counted* const object = made.get();
        Counted* handle = registry.Add(std::move(made));
        if (registry.Find(handle).get() != object) ++wrong;
        if (registry.Remove(handle).get() != object) ++wrong;
        if (registry.Find(handle) != nullptr) ++wrong;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(alive.load(), 0);
}

}  // namespace
