#include "platform/WideText.h"

#include <gtest/gtest.h>

namespace Tovrel {
namespace {

TEST(WideTextTest, TellsWellFormedUtf8) {
  EXPECT_TRUE(WideText::IsUtf8(""));
  EXPECT_TRUE(WideText::IsUtf8("plain \xc3\xa9 \xf0\x9f\x98\x80"));
  EXPECT_TRUE(WideText::IsUtf8(std::string("a\0b", 3)));
  EXPECT_FALSE(WideText::IsUtf8("\xff"));
  EXPECT_FALSE(WideText::IsUtf8("\xc3"));
  EXPECT_FALSE(WideText::IsUtf8("\xed\xa0\x80"));   // a surrogate
  EXPECT_FALSE(WideText::IsUtf8("\xc0\xaf"));       // an overlong form
  EXPECT_FALSE(WideText::IsUtf8("\xf4\x90\x80\x80"));  // past U+10FFFF
}

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
