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

TEST(WideTextTest, WellFormedTextIsToldFromTextWithNoUtf8Form) {
  EXPECT_TRUE(WideText::IsWellFormed(L""));
  EXPECT_TRUE(WideText::IsWellFormed(WideText::FromUtf8("a\t\n\\\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80")));
  EXPECT_TRUE(WideText::IsWellFormed(std::wstring(1, wchar_t(0xFFFD))));
  EXPECT_FALSE(WideText::IsWellFormed(std::wstring(1, wchar_t(0xD800))));
  EXPECT_FALSE(WideText::IsWellFormed(std::wstring(1, wchar_t(0xDFFF))));
  EXPECT_FALSE(WideText::IsWellFormed(std::wstring{L'a', wchar_t(0xDC00), wchar_t(0xD800)}));  // reversed pair
  if (sizeof(wchar_t) == 2) {
    EXPECT_TRUE(WideText::IsWellFormed(std::wstring{wchar_t(0xD83D), wchar_t(0xDE00)}));
    EXPECT_FALSE(WideText::IsWellFormed(std::wstring{wchar_t(0xD83D), L'a'}));
  } else {
    EXPECT_FALSE(WideText::IsWellFormed(std::wstring(1, static_cast<wchar_t>(0x110000))));
    EXPECT_FALSE(WideText::IsWellFormed(std::wstring(1, static_cast<wchar_t>(0x7FFFFFFF))));
    EXPECT_TRUE(WideText::IsWellFormed(std::wstring(1, static_cast<wchar_t>(0x10FFFF))));
  }
}

}  // namespace
}  // namespace Tovrel
