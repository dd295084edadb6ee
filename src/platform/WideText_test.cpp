#include "platform/WideText.h"

#include <gtest/gtest.h>

namespace Tovrel {
namespace {

TEST(WideTextTest, RoundTripsEveryPlane) {
  const std::string utf8 = "a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80z";
  const std::wstring wide = WideText::FromUtf8(utf8);
  EXPECT_EQ(wide.size(), sizeof(wchar_t) == 2 ? 6u : 5u);
  EXPECT_EQ(WideText::ToUtf8(wide), utf8);
}

TEST(WideTextTest, BrokenUtf8BecomesReplacementCharacters) {
  EXPECT_EQ(WideText::FromUtf8("\xC3"), std::wstring(1, wchar_t(0xFFFD)));
  EXPECT_EQ(WideText::FromUtf8("\xC0\x80"), std::wstring(1, wchar_t(0xFFFD)));  // overlong
  EXPECT_EQ(WideText::FromUtf8("\xED\xA0\x80"), std::wstring(1, wchar_t(0xFFFD)));  // surrogate
  EXPECT_EQ(WideText::FromUtf8("\xFF" "a"), (std::wstring{wchar_t(0xFFFD), L'a'}));
}

TEST(WideTextTest, AnUnpairedSurrogateBecomesAReplacementCharacter) {
  const std::wstring lone(1, wchar_t(0xD800));
  EXPECT_EQ(WideText::ToUtf8(lone), "\xEF\xBF\xBD");
}

}  // namespace
}  // namespace Tovrel
