#include "package/FirstFitIndex.h"

#include <gtest/gtest.h>

#include <random>

namespace Tovrel {
namespace {

TEST(FirstFitIndexTest, AnEmptyIndexFindsNothing) {
  FirstFitIndex index;
  EXPECT_EQ(index.FindFirst(0), FirstFitIndex::kNone);
  EXPECT_EQ(index.FindFirst(1), FirstFitIndex::kNone);
}

TEST(FirstFitIndexTest, FindsTheLowestSlotWithEnough) {
  FirstFitIndex index;
  for (std::uint64_t v : {5u, 100u, 3u, 100u, 200u}) index.Append(v);
  EXPECT_EQ(index.FindFirst(1), 0u);
  EXPECT_EQ(index.FindFirst(6), 1u);
  EXPECT_EQ(index.FindFirst(101), 4u);
  EXPECT_EQ(index.FindFirst(201), FirstFitIndex::kNone);
  index.Set(1, 0);
  EXPECT_EQ(index.FindFirst(6), 3u);
  EXPECT_EQ(index.Get(3), 100u);
}

TEST(FirstFitIndexTest, AgreesWithALinearScan) {
  std::mt19937 random(7);
  FirstFitIndex index;
  std::vector<std::uint64_t> values;
  for (int step = 0; step < 3000; ++step) {
    const int op = static_cast<int>(random() % 4);
    if (op == 0 || values.empty()) {
      values.push_back(random() % 70000);
      index.Append(values.back());
    } else if (op == 1) {
      const std::size_t slot = random() % values.size();
      values[slot] = random() % 70000;
      index.Set(slot, values[slot]);
    } else if (op == 2 && step % 500 == 0) {
      index.Assign(values);
    }
    const std::uint64_t wanted = random() % 70000;
    std::size_t expected = FirstFitIndex::kNone;
    for (std::size_t i = 0; i < values.size(); ++i) {
      if (values[i] >= wanted) {
        expected = i;
        break;
      }
    }
    ASSERT_EQ(index.FindFirst(wanted), expected) << step;
  }
  EXPECT_EQ(index.Size(), values.size());
}

}  // namespace
}  // namespace Tovrel
