#include "host/AdvancedIdentifierAllocator.h"

#include <gtest/gtest.h>

#include <random>
#include <set>

namespace {

using NorvaneGraphics::AdvancedIdentifierAllocator;

TEST(AdvancedIdentifierAllocatorTest, HandsOutLowestFreeIdentifierFromZero) {
  AdvancedIdentifierAllocator ids;
  EXPECT_EQ(ids.Allocate(), 0u);
  EXPECT_EQ(ids.Allocate(), 1u);
  EXPECT_EQ(ids.Allocate(), 2u);
  EXPECT_TRUE(ids.Free(1));
  EXPECT_EQ(ids.Allocate(), 1u);
  EXPECT_EQ(ids.Allocate(), 3u);
  EXPECT_EQ(ids.Count(), 4u);
}

TEST(AdvancedIdentifierAllocatorTest, MarkAllocatedRefusesAnIdentifierInUse) {
  AdvancedIdentifierAllocator ids;
  EXPECT_TRUE(ids.MarkAllocated(5));
  EXPECT_FALSE(ids.MarkAllocated(5));
  EXPECT_TRUE(ids.IsAllocated(5));
  EXPECT_EQ(ids.Count(), 1u);
  EXPECT_EQ(ids.Allocate(), 0u);
}

TEST(AdvancedIdentifierAllocatorTest, MarkAllocatedRefusesIdentifiersAtTheLimit) {
  AdvancedIdentifierAllocator ids;
  EXPECT_FALSE(ids.MarkAllocated(AdvancedIdentifierAllocator::kIdentifierLimit));
  EXPECT_FALSE(ids.MarkAllocated(~std::uint64_t{0}));
  EXPECT_EQ(ids.Count(), 0u);
}

TEST(AdvancedIdentifierAllocatorTest, FreeOfAnIdentifierNotHeldIsRefused) {
  AdvancedIdentifierAllocator ids;
  EXPECT_FALSE(ids.Free(0));
  EXPECT_FALSE(ids.Free(1000000));
  ids.Allocate();
  EXPECT_TRUE(ids.Free(0));
  EXPECT_FALSE(ids.Free(0));
}

TEST(AdvancedIdentifierAllocatorTest, ListsAllocatedIdentifiersInAscendingOrder) {
  AdvancedIdentifierAllocator ids;
  for (std::uint64_t id : {900u, 3u, 64u, 63u, 65u, 0u}) ASSERT_TRUE(ids.MarkAllocated(id));
  const std::uint64_t expected[] = {0, 3, 63, 64, 65, 900};
  ASSERT_EQ(ids.Count(), 6u);
  for (std::uint64_t k = 0; k < 6; ++k) EXPECT_EQ(ids.GetAllocated(k), expected[k]);
  EXPECT_EQ(ids.GetAllocated(6), AdvancedIdentifierAllocator::kNoIdentifier);
}

TEST(AdvancedIdentifierAllocatorTest, ClearForgetsEverything) {
  AdvancedIdentifierAllocator ids;
  ids.MarkAllocated(4000);
  ids.Allocate();
  ids.Clear();
  EXPECT_EQ(ids.Count(), 0u);
  EXPECT_FALSE(ids.IsAllocated(4000));
  EXPECT_EQ(ids.Allocate(), 0u);
}

TEST(AdvancedIdentifierAllocatorTest, AgreesWithAnOrderedSetUnderRandomUse) {
  AdvancedIdentifierAllocator ids;
  std::set<std::uint64_t> model;
  std::mt19937_64 random(7);
  for (int step = 0; step < 20000; ++step) {
    const int action = static_cast<int>(random() % 4);
    if (action == 0) {
      std::uint64_t lowest = 0;
      while (model.count(lowest) != 0) ++lowest;
      ASSERT_EQ(ids.Allocate(), lowest);
      model.insert(lowest);
    } else if (action == 1) {
      const std::uint64_t id = random() % 3000;
      ASSERT_EQ(ids.MarkAllocated(id), model.insert(id).second);
    } else if (action == 2) {
      const std::uint64_t id = random() % 3000;
      ASSERT_EQ(ids.Free(id), model.erase(id) == 1);
    } else if (!model.empty()) {
      const std::uint64_t k = random() % model.size();
      ASSERT_EQ(ids.GetAllocated(k), *std::next(model.begin(), static_cast<long>(k)));
    }
    ASSERT_EQ(ids.Count(), model.size());
  }
}

}  // namespace
