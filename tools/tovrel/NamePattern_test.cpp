#include "NamePattern.h"

#include <gtest/gtest.h>

namespace Tovrel {
namespace Tool {
namespace {

TEST(NamePatternTest, StarsAndQuestionMarksMatchAsInAShell) {
  EXPECT_TRUE(NamePattern::Matches("*", ""));
  EXPECT_TRUE(NamePattern::Matches("*", "ui/variant_00008.fxo"));
  EXPECT_TRUE(NamePattern::Matches("ui/*", "ui/variant_00008.fxo"));
  EXPECT_FALSE(NamePattern::Matches("ui/*", "hair/variant_00008.fxo"));
  EXPECT_TRUE(NamePattern::Matches("*variant_0000?.fxo", "ui/variant_00008.fxo"));
  EXPECT_FALSE(NamePattern::Matches("*variant_0000?.fxo", "ui/variant_00018.fxo"));
  EXPECT_TRUE(NamePattern::Matches("*.fxo", "a.fxo.fxo"));
  EXPECT_TRUE(NamePattern::Matches("a*b*c", "aXbYbZc"));
  EXPECT_FALSE(NamePattern::Matches("a*b*c", "aXbYbZ"));
  EXPECT_TRUE(NamePattern::Matches("exact", "exact"));
  EXPECT_FALSE(NamePattern::Matches("exact", "exactly"));
  EXPECT_FALSE(NamePattern::Matches("", "x"));
  EXPECT_TRUE(NamePattern::Matches("\xE4\xB8\xAD*", "\xE4\xB8\xAD\xE6\x96\x87"));  // UTF-8 bytes
  EXPECT_TRUE(NamePattern::Matches("??", "\xC3\xA9"));  // one character, two bytes
}

TEST(NamePatternTest, ManyStarsOnALongNameStayFast) {
  const std::string name(10000, 'a');
  EXPECT_FALSE(NamePattern::Matches("*a*a*a*a*a*a*a*a*b", name));
  EXPECT_TRUE(NamePattern::Matches("*a*a*a*a*a*a*a*a*", name));
}

}  // namespace
}  // namespace Tool
}  // namespace Tovrel
