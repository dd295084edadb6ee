#include "pagefile/SavedImages.h"

#include <gtest/gtest.h>

#include <vector>

namespace Tovrel {
namespace {

TEST(SavedImagesTest, TheFirstImageOfAPageIsKeptAndSealingEndsTrust) {
  SavedImages images;
  EXPECT_TRUE(images.Trusted());
  std::vector<std::uint8_t> first(kPageSize, 1);
  std::vector<std::uint8_t> second(kPageSize, 2);
  std::vector<std::uint8_t> out(kPageSize, 0);
  EXPECT_FALSE(images.Find(3, out.data()));
  images.Keep(3, first.data());
  images.Keep(3, second.data());
  ASSERT_TRUE(images.Find(3, out.data()));
  EXPECT_EQ(out, first);
  EXPECT_FALSE(images.Find(4, out.data()));
  EXPECT_EQ(images.Count(), 1u);
  images.Seal();
  EXPECT_FALSE(images.Trusted());
  EXPECT_TRUE(images.Find(3, out.data()));
}

}  // namespace
}  // namespace Tovrel
