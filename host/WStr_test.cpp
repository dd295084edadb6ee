#include "host/WStr.h"

#include <gtest/gtest.h>

#include "host/NorvaneString.h"

namespace {

TEST(WStrTest, ConvertsToUtf8ThroughTheSdkString) {
  const WStr name(L"fx/Glow \u00e9\u4e2d");
  EXPECT_EQ(name.ToNorvaneString().ToUTF8(), "fx/Glow \xC3\xA9\xE4\xB8\xAD");
  EXPECT_EQ(name.Length(), 10u);
}

TEST(WStrTest, CharactersBeyondTheBasicPlaneBecomeFourBytes) {
  std::wstring text;
  if (sizeof(wchar_t) == 2) {
    text = {wchar_t(0xD83D), wchar_t(0xDE00)};
  } else {
    text = {wchar_t(0x1F600)};
  }
  EXPECT_EQ(WStr(text).ToNorvaneString().ToUTF8(), "\xF0\x9F\x98\x80");
  EXPECT_EQ(NorvaneString::FromUTF8("\xF0\x9F\x98\x80").Wide(), text);
}

TEST(WStrTest, ANullPointerMakesAnEmptyString) {
  const WStr empty(static_cast<const wchar_t*>(nullptr));
  EXPECT_TRUE(empty.isNull());
  EXPECT_EQ(empty.ToNorvaneString().ToUTF8(), "");
}

TEST(WStrTest, AppendsAndCompares) {
  WStr a(L"abc");
  a += WStr(L"def");
  EXPECT_TRUE(a == WStr(L"abcdef"));
  EXPECT_EQ(a[3], L'd');
}

}  // namespace
