#include "package/IdentifierTable.h"

#include <gtest/gtest.h>

#include <vector>

#include "pagefile/StreamEntry.h"
#include "pagefile/StreamTailRecord.h"

namespace Tovrel {
namespace {

using TailTable = IdentifierTable<StreamTailRecord, &StreamTailRecord::streamIdentifier>;
using EntryTable = IdentifierTable<StreamEntry, &StreamEntry::identifier>;

StreamTailRecord Tail(std::uint64_t stream, std::uint64_t offset = 0) { return {stream, 1, 0, offset, 10}; }

std::vector<std::uint64_t> Identifiers(const TailTable& table) {
  std::vector<std::uint64_t> ids;
  table.ForEach([&ids](const StreamTailRecord& tail) { ids.push_back(tail.streamIdentifier); });
  return ids;
}

TEST(IdentifierTableTest, FindsWhatWasInsertedAndNothingElse) {
  TailTable table;
  EXPECT_TRUE(table.Empty());
  ASSERT_TRUE(table.Insert(Tail(0, 5)));
  ASSERT_TRUE(table.Insert(Tail(7, 70)));
  EXPECT_EQ(table.Size(), 2u);
  ASSERT_NE(table.Find(7), nullptr);
  EXPECT_EQ(table.Find(7)->offset, 70u);
  EXPECT_EQ(table.Find(0)->offset, 5u);
  EXPECT_EQ(table.Find(1), nullptr);
  EXPECT_EQ(table.Find(6), nullptr);
  EXPECT_EQ(table.Find(8), nullptr);
  EXPECT_EQ(table.Find(TailTable::kAbsent), nullptr);
}

TEST(IdentifierTableTest, RefusesASecondRecordForAStreamAndTheAbsentIdentifier) {
  TailTable table;
  ASSERT_TRUE(table.Insert(Tail(3, 1)));
  EXPECT_FALSE(table.Insert(Tail(3, 2)));
  EXPECT_EQ(table.Find(3)->offset, 1u);
  EXPECT_FALSE(table.Insert(Tail(TailTable::kAbsent)));
  EXPECT_EQ(table.Size(), 1u);
}

TEST(IdentifierTableTest, ErasedRecordsAreGoneAndTheirStreamsMayHaveANewOne) {
  TailTable table;
  for (std::uint64_t id = 0; id < 10; ++id) ASSERT_TRUE(table.Insert(Tail(id)));
  EXPECT_TRUE(table.Erase(4));
  EXPECT_FALSE(table.Erase(4));
  EXPECT_FALSE(table.Erase(10));
  EXPECT_EQ(table.Find(4), nullptr);
  EXPECT_EQ(table.Size(), 9u);
  EXPECT_EQ(Identifiers(table), (std::vector<std::uint64_t>{0, 1, 2, 3, 5, 6, 7, 8, 9}));
  ASSERT_TRUE(table.Insert(Tail(4, 44)));
  EXPECT_EQ(table.Find(4)->offset, 44u);
}

TEST(IdentifierTableTest, FarIdentifiersAreKeptWithoutAnArrayOfTheirSize) {
  // An array up to 2^50 could not be allocated: these records can only be
  // kept apart from it.
  TailTable table;
  const std::uint64_t far = std::uint64_t{1} << 50;
  ASSERT_TRUE(table.Insert(Tail(far, 1)));
  ASSERT_TRUE(table.Insert(Tail(far - 1, 2)));
  ASSERT_TRUE(table.Insert(Tail(2, 3)));
  EXPECT_EQ(table.Find(far)->offset, 1u);
  EXPECT_EQ(table.Find(far - 1)->offset, 2u);
  EXPECT_EQ(table.Find(far + 1), nullptr);
  EXPECT_EQ(Identifiers(table), (std::vector<std::uint64_t>{2, far - 1, far}));
  EXPECT_TRUE(table.Erase(far - 1));
  EXPECT_FALSE(table.Erase(far - 1));
  EXPECT_EQ(table.Size(), 2u);
  EXPECT_EQ(Identifiers(table), (std::vector<std::uint64_t>{2, far}));
}

TEST(IdentifierTableTest, RecordsKeptApartJoinTheArrayWhenItGrowsOverThem) {
  TailTable table;
  ASSERT_TRUE(table.Insert(Tail(20000, 9)));  // too far for an empty table's array
  ASSERT_TRUE(table.Insert(Tail(30000, 8)));
  for (std::uint64_t id = 1; id < 25000; id += 2) ASSERT_TRUE(table.Insert(Tail(id)));
  EXPECT_FALSE(table.Insert(Tail(20000)));
  EXPECT_EQ(table.Find(20000)->offset, 9u);
  EXPECT_EQ(table.Find(30000)->offset, 8u);
  const std::vector<std::uint64_t> ids = Identifiers(table);
  ASSERT_EQ(ids.size(), table.Size());
  for (std::size_t i = 1; i < ids.size(); ++i) EXPECT_LT(ids[i - 1], ids[i]);
  EXPECT_EQ(ids.back(), 30000u);
  EXPECT_TRUE(table.Erase(20000));
  EXPECT_EQ(table.Find(20000), nullptr);
}

TEST(IdentifierTableTest, ClearEmptiesBoth) {
  TailTable table;
  ASSERT_TRUE(table.Insert(Tail(1)));
  ASSERT_TRUE(table.Insert(Tail(std::uint64_t{1} << 40)));
  table.Clear();
  EXPECT_TRUE(table.Empty());
  EXPECT_EQ(table.Find(1), nullptr);
  EXPECT_TRUE(Identifiers(table).empty());
  EXPECT_TRUE(table.Insert(Tail(1)));
}

TEST(IdentifierTableTest, KeysRecordsByTheirOwnField) {
  EntryTable table;
  ASSERT_TRUE(table.Insert(StreamEntry{5, 100, 12, 0}));
  ASSERT_TRUE(table.Insert(StreamEntry{2, 200, 13, 0}));
  EXPECT_FALSE(table.Insert(StreamEntry{5, 300, 14, 0}));
  ASSERT_NE(table.Find(5), nullptr);
  EXPECT_EQ(table.Find(5)->size, 100u);
  EXPECT_EQ(table.Find(2)->firstPage, 13u);
  EXPECT_EQ(table.Find(3), nullptr);
  std::vector<std::uint64_t> ids;
  table.ForEach([&ids](const StreamEntry& entry) { ids.push_back(entry.identifier); });
  EXPECT_EQ(ids, (std::vector<std::uint64_t>{2, 5}));
}

}  // namespace
}  // namespace Tovrel
