#include "package/StreamTable.h"

#include <gtest/gtest.h>

#include "package/SectionIO.h"
#include "pagefile/FileDataCorruptException.h"
#include "pagefile/FileIOException.h"
#include "pagefile/InvalidParameterException.h"
#include "support/MemoryDataStream.h"

namespace Tovrel {
namespace {

using Testing::MemoryDataStream;

// Section bytes: the count, then the given entries.
RefPtr<IDataStream> Section(std::uint64_t count, const std::vector<StreamEntry>& entries) {
  std::vector<std::uint8_t> bytes;
  SectionIO::Put(bytes, count);
  for (const StreamEntry& e : entries) {
    for (std::uint64_t v : {e.identifier, e.size, e.firstPage, e.fullPageCount}) SectionIO::Put(bytes, v);
  }
  return RefPtr<IDataStream>(new MemoryDataStream(bytes));
}

TEST(StreamTableTest, ACountEqualToTheLimitIsAcceptedAndOneMoreIsCorrupt) {
  StreamTable table;
  RefPtr<IDataStream> section = Section(2, {{0, 10, 0, 0}, {2, 8192, 11, 1}});
  ASSERT_TRUE(table.Read(section, 2));
  EXPECT_EQ(table.GetCount(), 2u);
  EXPECT_EQ(table.GetTotalSize(), 8202u);
  EXPECT_EQ(table.GetStreamLimit(), 2u);
  section = Section(3, {{0, 10, 0, 0}, {1, 1, 0, 0}, {2, 1, 0, 0}});
  EXPECT_THROW(table.Read(section, 2), FileDataCorruptException);
}

TEST(StreamTableTest, AnIdentifierEqualToTheLimitIsAcceptedAndAboveItRefused) {
  StreamTable table;
  RefPtr<IDataStream> section = Section(1, {{5, 1, 0, 0}});
  EXPECT_TRUE(table.Read(section, 5));
  section = Section(1, {{6, 1, 0, 0}});
  EXPECT_THROW(table.Read(section, 5), InvalidParameterException);
  section = Section(1, {{std::uint64_t{1} << 40, 1, 0, 0}});
  EXPECT_THROW(table.Read(section, 5), InvalidParameterException);
}

TEST(StreamTableTest, AnIdentifierTheAllocatorCannotHoldIsCorrupt) {
  StreamTable table;
  RefPtr<IDataStream> section = Section(1, {{std::uint64_t{1} << 28, 1, 0, 0}});
  EXPECT_THROW(table.Read(section, ~std::uint64_t{0}), FileDataCorruptException);
}

TEST(StreamTableTest, AnIdentifierGivenTwiceIsCorrupt) {
  StreamTable table;
  RefPtr<IDataStream> section = Section(2, {{3, 1, 0, 0}, {3, 2, 0, 0}});
  EXPECT_THROW(table.Read(section, 100), FileDataCorruptException);
}

TEST(StreamTableTest, TooManyWholePagesAreRefusedButSizesAreNotCheckedAgainstThem) {
  StreamTable table;
  RefPtr<IDataStream> section = Section(1, {{0, 1, 0, 0xFFFF7}});
  EXPECT_THROW(table.Read(section, 100), InvalidParameterException);
  section = Section(1, {{0, 5, 77, 0xFFFF6}});
  ASSERT_TRUE(table.Read(section, 100));
  EXPECT_EQ(table.Find(0)->fullPageCount, 0xFFFF6u);
  EXPECT_EQ(table.Find(0)->firstPage, 77u);
}

TEST(StreamTableTest, AShortSectionIsAnIOError) {
  StreamTable table;
  RefPtr<IDataStream> empty(new MemoryDataStream(4));
  EXPECT_THROW(table.Read(empty, 100), FileIOException);
  RefPtr<IDataStream> section = Section(2, {{0, 1, 0, 0}});
  EXPECT_THROW(table.Read(section, 100), FileIOException);
}

TEST(StreamTableTest, WritesEntriesInAscendingIdentifierOrder) {
  StreamTable table;
  table.SetStreamLimit(10);
  for (int i = 0; i < 4; ++i) table.Add(StreamEntry{99, 100u + i, 0, 0});
  ASSERT_TRUE(table.Remove(1));
  EXPECT_FALSE(table.Remove(1));
  EXPECT_EQ(table.GetSaveSize(), 8u + 3 * 32);
  auto* memory = new MemoryDataStream(table.GetSaveSize());
  RefPtr<IDataStream> out(memory);
  ASSERT_TRUE(table.Write(out));
  const std::vector<std::uint8_t> expected = [] {
    std::vector<std::uint8_t> bytes;
    SectionIO::Put(bytes, 3);
    for (std::uint64_t id : {0u, 2u, 3u}) {
      for (std::uint64_t v : {std::uint64_t{id}, 100 + id, std::uint64_t{0}, std::uint64_t{0}}) SectionIO::Put(bytes, v);
    }
    return bytes;
  }();
  EXPECT_EQ(memory->Bytes(), expected);
  RefPtr<IDataStream> short_(new MemoryDataStream(20));
  EXPECT_THROW(table.Write(short_), FileIOException);
}

TEST(StreamTableTest, AddingStopsAtTheLimitAndClearingResetsIt) {
  StreamTable table;
  EXPECT_EQ(table.GetStreamLimit(), StreamTable::kClearedLimit);
  table.SetStreamLimit(2);
  EXPECT_EQ(table.Add(StreamEntry{}), 0u);
  EXPECT_EQ(table.Add(StreamEntry{}), 1u);
  EXPECT_EQ(table.Add(StreamEntry{}), StreamTable::kNoStream);
  EXPECT_EQ(table.GetIdentifier(1), 1u);
  EXPECT_EQ(table.GetIdentifier(2), StreamTable::kNoStream);
  table.Clear();
  EXPECT_EQ(table.GetCount(), 0u);
  EXPECT_EQ(table.GetStreamLimit(), StreamTable::kClearedLimit);
  EXPECT_EQ(table.Find(0), nullptr);
}

}  // namespace
}  // namespace Tovrel
