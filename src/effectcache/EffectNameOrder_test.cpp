#include "effectcache/EffectNameOrder.h"

#include <gtest/gtest.h>

#include <map>
#include <vector>

namespace Tovrel {
namespace {

TEST(EffectNameOrderTest, ShorterNamesComeFirstWhateverTheirLetters) {
  std::map<std::string, int, EffectNameOrder> names;
  for (const char* name : {"abc", "zz", "a", "zzzz", "aa", "b"}) names[name] = 0;
  std::vector<std::string> order;
  for (const auto& entry : names) order.push_back(entry.first);
  EXPECT_EQ(order, (std::vector<std::string>{"a", "b", "aa", "zz", "abc", "zzzz"}));
}

TEST(EffectNameOrderTest, EqualLengthsCompareAsUnsignedBytes) {
  const EffectNameOrder less;
  EXPECT_TRUE(less("\x7F", "\x80"));
  EXPECT_TRUE(less("a\xC3\xA9", "a\xFF\x01"));
  EXPECT_FALSE(less("same", "same"));
  EXPECT_TRUE(less(std::string("a\0b", 3), std::string("a\1b", 3)));
}

}  // namespace
}  // namespace Tovrel
