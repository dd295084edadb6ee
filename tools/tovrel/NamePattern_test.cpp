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
  // "?" takes one character, however many bytes it has.
  EXPECT_TRUE(NamePattern::Matches("?", "\xC3\xA9"));
  EXPECT_FALSE(NamePattern::Matches("??", "\xC3\xA9"));
  EXPECT_TRUE(NamePattern::Matches("fx/?.fxo", "fx/\xF0\x9F\x98\x80.fxo"));
  EXPECT_FALSE(NamePattern::Matches("*?\xA9", "a\xC3\xA9"));  // no character ends in that byte alone
  EXPECT_TRUE(NamePattern::Matches("*\xE6\x96\x87", "\xE4\xB8\xAD\xE6\x96\x87"));
  EXPECT_TRUE(NamePattern::Matches("*?", "\xE4\xB8\xAD\xE6\x96\x87"));
  EXPECT_TRUE(NamePattern::Matches("??", "\xE4\xB8\xAD\xE6\x96\x87"));
  EXPECT_FALSE(NamePattern::Matches("???", "\xE4\xB8\xAD\xE6\x96\x87"));
}

TEST(NamePatternTest, ManyStarsOnALongNameStayFast) {
  const std::string name(10000, 'a');
  EXPECT_FALSE(NamePattern::Matches("*a*a*a*a*a*a*a*a*b", name));
  EXPECT_TRUE(NamePattern::Matches("*a*a*a*a*a*a*a*a*", name));
}

}  // namespace
}  // namespace Tool
}  // namespace Tovrel
