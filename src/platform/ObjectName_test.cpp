#include "platform/ObjectName.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

using Tovrel::ObjectName;

TEST(ObjectNameTest, Fnv1aMatchesPublishedValues) {
  EXPECT_EQ(ObjectName::Fnv1a64(""), 0xcbf29ce484222325ULL);
  EXPECT_EQ(ObjectName::Fnv1a64("a"), 0xaf63dc4c8601ec8cULL);
  EXPECT_EQ(ObjectName::Fnv1a64("foobar"), 0x85944171f73967e8ULL);
}

TEST(ObjectNameTest, NameWithinTheLimitStaysAsItIs) {
  const std::string name(254, 'n');
  EXPECT_EQ(ObjectName::Shorten(name, 254), name);
  EXPECT_EQ(ObjectName::Shorten("C__Cache_norvaneFxoCache_dat_mutex", 254),
            "C__Cache_norvaneFxoCache_dat_mutex");
}

TEST(ObjectNameTest, LongNameKeepsTwoHundredBytesAndAppendsTheHashInHex) {
  const std::string name = std::string(250, 'x') + "foobar";
  const std::string shortened = ObjectName::Shorten(name, 254);
  ASSERT_EQ(shortened.size(), 217u);
  EXPECT_EQ(shortened.substr(0, 200), name.substr(0, 200));
  EXPECT_EQ(shortened[200], '_');
  char hex[17];
  std::snprintf(hex, sizeof(hex), "%016llx",
                static_cast<unsigned long long>(ObjectName::Fnv1a64(name)));
  EXPECT_EQ(shortened.substr(201), hex);
}

TEST(ObjectNameTest, LongNamesDifferingOnlyInTheLastByteStayApart) {
  const std::string stem(300, 'q');
  EXPECT_NE(ObjectName::Shorten(stem + "a", 254), ObjectName::Shorten(stem + "b", 254));
}

TEST(ObjectNameTest, OneByteOverTheLimitIsShortened) {
  const std::string name(255, 'n');
  EXPECT_EQ(ObjectName::Shorten(name, 254).size(), 217u);
}

}  // namespace
