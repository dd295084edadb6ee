#include "host/Tab.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using NorvaneSDK::Util::Exception;
using NorvaneSDK::Util::OutOfRangeException;
using NorvaneSDK::Util::TabOutOfRangeException;

TEST(TabTest, AddrOfAnEmptyTabThrowsTheRangeExceptionWithItsMessage) {
  Tab<unsigned char> bytes;
  try {
    bytes.Addr(0);
    FAIL() << "no exception";
  } catch (const TabOutOfRangeException& e) {
    EXPECT_STREQ(e.GetMessageText(), "Invalid index passed into a Norvane SDK Tab::Addr(const INT_PTR i)");
    EXPECT_STREQ(e.what(), e.GetMessageText());
  }
}

TEST(TabTest, TheRangeExceptionBelongsToTheSdkHierarchy) {
  Tab<int> values;
  values.SetCount(2);
  EXPECT_THROW(values.Addr(2), OutOfRangeException);
  EXPECT_THROW(values.Addr(-1), Exception);
  EXPECT_THROW(values.Addr(2), std::exception);
}

TEST(TabTest, AnExceptionWithoutMessageNamesItsClass) {
  EXPECT_STREQ(TabOutOfRangeException().GetMessageText(), "NorvaneSDK::Util::TabOutOfRangeException");
  EXPECT_STREQ(OutOfRangeException().what(), "NorvaneSDK::Util::OutOfRangeException");
}

TEST(TabTest, SetCountKeepsLeadingElementsAndZeroesNewOnes) {
  Tab<unsigned char> bytes;
  const unsigned char data[3] = {7, 8, 9};
  EXPECT_EQ(bytes.Append(3, data), 0);
  EXPECT_EQ(bytes.SetCount(5), 5);
  EXPECT_EQ(*bytes.Addr(0), 7);
  EXPECT_EQ(*bytes.Addr(2), 9);
  EXPECT_EQ(*bytes.Addr(4), 0);
  EXPECT_EQ(bytes.SetCount(1), 1);
  EXPECT_EQ(bytes[0], 7);
  EXPECT_EQ(bytes.SetCount(-4), 0);
  bytes.SetCount(2);
  bytes.ZeroCount();
  EXPECT_EQ(bytes.Count(), 0);
}

TEST(TabTest, AddrGivesContiguousStorage) {
  Tab<unsigned char> bytes;
  bytes.SetCount(100);
  std::memset(bytes.Addr(0), 0x3C, 100);
  EXPECT_EQ(bytes[99], 0x3C);
  EXPECT_EQ(bytes.Addr(99) - bytes.Addr(0), 99);
}

}  // namespace
