#include "effectcache/EffectTable.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace Tovrel {
namespace {

EffectRecord RecordOf(std::uint64_t stream) {
  EffectRecord record{};
  record.streamId = stream;
  return record;
}

std::vector<std::string> NamesOf(const EffectTable& table) {
  std::vector<std::string> names;
  for (const EffectTable::Entry& entry : table) names.push_back(entry.name);
  return names;
}

TEST(EffectTableTest, LoadedEntriesInOrderAreAppendedAndFound) {
  EffectTable table;
  const std::vector<std::string> names{"b", "z", "ab", "ba", "\xC3\xA9", "abc"};  // name order
  for (std::size_t i = 0; i < names.size(); ++i) table.AddLoaded(std::string(names[i]), RecordOf(i + 10));
  EXPECT_EQ(NamesOf(table), names);
  for (std::size_t i = 0; i < names.size(); ++i) {
    ASSERT_NE(table.Find(names[i]), nullptr) << names[i];
    EXPECT_EQ(table.Find(names[i])->streamId, i + 10);
  }
  EXPECT_EQ(table.Find("c"), nullptr);
  EXPECT_EQ(table.Find(""), nullptr);
  EXPECT_EQ(table.Find("abcd"), nullptr);
}

TEST(EffectTableTest, LoadedEntriesOutOfOrderAreSortedAndTheLaterRecordWins) {
  EffectTable table;
  table.AddLoaded("zz", RecordOf(1));
  table.AddLoaded("a", RecordOf(2));
  table.AddLoaded("\xFF", RecordOf(3));
  table.AddLoaded("b", RecordOf(4));
  table.AddLoaded("a", RecordOf(5));
  EXPECT_EQ(NamesOf(table), (std::vector<std::string>{"a", "b", "\xFF", "zz"}));
  EXPECT_EQ(table.Find("a")->streamId, 5u);
}

TEST(EffectTableTest, ABatchOfChangesReplacesInsertsAndRemovesInOnePass) {
  EffectTable table;
  for (const char* name : {"b", "d", "f", "hh"}) table.AddLoaded(name, RecordOf(1));
  std::vector<EffectTable::Change> changes;
  changes.push_back({"a", RecordOf(2), false});   // new, before all
  changes.push_back({"d", RecordOf(3), false});   // replaced
  changes.push_back({"e", RecordOf(0), true});    // removal of a name not there
  changes.push_back({"f", RecordOf(0), true});    // removed
  changes.push_back({"zz", RecordOf(4), false});  // new, after all
  table.Apply(std::move(changes));
  EXPECT_EQ(NamesOf(table), (std::vector<std::string>{"a", "b", "d", "hh", "zz"}));
  EXPECT_EQ(table.Find("a")->streamId, 2u);
  EXPECT_EQ(table.Find("d")->streamId, 3u);
  EXPECT_EQ(table.Find("b")->streamId, 1u);
  EXPECT_EQ(table.Find("zz")->streamId, 4u);
  table.Apply({});
  EXPECT_EQ(table.Size(), 5u);
}

TEST(EffectTableTest, OldestFirstOrdersByLastUseAndCanLeaveOutPermanentEntries) {
  EffectTable table;
  const auto at = [](std::uint16_t day, std::uint32_t permanent) {
    EffectRecord record = RecordOf(day);
    record.lastUsed = CacheTimeStamp{2026, 1, day, 0, 0, 0, 0};
    record.permanent = permanent;
    return record;
  };
  table.AddLoaded("a", at(5, 0));
  table.AddLoaded("b", at(2, 1));
  table.AddLoaded("c", at(5, 0));
  table.AddLoaded("d", at(1, 0));
  EXPECT_EQ(table.OldestFirst(false), (std::vector<std::size_t>{3, 1, 0, 2}));  // ties keep name order
  EXPECT_EQ(table.OldestFirst(true), (std::vector<std::size_t>{3, 0, 2}));
}

// A record last used at `when`, permanent or not.
EffectRecord UsedAt(const CacheTimeStamp& when, std::uint32_t permanent = 0) {
  EffectRecord record = RecordOf(1);
  record.lastUsed = when;
  record.permanent = permanent;
  return record;
}

// The names OldestFirst lists, in its order.
std::vector<std::string> OldestNamesFirst(EffectTable& table, bool unpinnedOnly) {
  std::vector<std::string> names;
  for (std::size_t i : table.OldestFirst(unpinnedOnly)) names.push_back(table.At(i).name);
  return names;
}

TEST(EffectTableTest, OldestFirstComparesEveryFieldOfTheStampFromTheYearDownToTheMillisecond) {
  EffectTable table;
  // Each later than "b" by one unit of one field only; "c" earlier in every
  // field but the year.
  table.AddLoaded("a", UsedAt({2026, 1, 1, 0, 0, 0, 1}));
  table.AddLoaded("b", UsedAt({2026, 1, 1, 0, 0, 0, 0}));
  table.AddLoaded("c", UsedAt({2025, 12, 31, 23, 59, 59, 999}));
  table.AddLoaded("e", UsedAt({2026, 1, 1, 0, 0, 1, 0}));
  table.AddLoaded("f", UsedAt({2026, 1, 1, 0, 1, 0, 0}));
  table.AddLoaded("g", UsedAt({2026, 1, 1, 1, 0, 0, 0}));
  table.AddLoaded("h", UsedAt({2026, 1, 2, 0, 0, 0, 0}));
  table.AddLoaded("i", UsedAt({2026, 2, 1, 0, 0, 0, 0}));
  table.AddLoaded("j", UsedAt({2027, 1, 1, 0, 0, 0, 0}));
  EXPECT_EQ(OldestNamesFirst(table, false), (std::vector<std::string>{"c", "b", "a", "e", "f", "g", "h", "i", "j"}));
}

TEST(EffectTableTest, OldestFirstKeepsNameOrderAmongEqualTimesAndLeavesPermanentEntriesOutWhereverTheyFall) {
  EffectTable table;
  const CacheTimeStamp same{2026, 3, 4, 5, 6, 7, 8};
  const CacheTimeStamp older{2026, 3, 4, 5, 6, 7, 7};
  // Added out of name order; name order puts the shorter name first.
  table.AddLoaded("zz", UsedAt(same));
  table.AddLoaded("b", UsedAt(same, 1));
  table.AddLoaded("y", UsedAt(same));
  table.AddLoaded("aaa", UsedAt(same));
  table.AddLoaded("x", UsedAt(older, 1));
  table.AddLoaded("c", UsedAt(same));
  table.AddLoaded("w", UsedAt(older));
  ASSERT_EQ(NamesOf(table), (std::vector<std::string>{"b", "c", "w", "x", "y", "zz", "aaa"}));
  EXPECT_EQ(OldestNamesFirst(table, false), (std::vector<std::string>{"w", "x", "b", "c", "y", "zz", "aaa"}));
  EXPECT_EQ(OldestNamesFirst(table, true), (std::vector<std::string>{"w", "c", "y", "zz", "aaa"}));
}

TEST(EffectTableTest, MarkedEntriesAndSingleNamesAreErased) {
  EffectTable table;
  for (const char* name : {"a", "b", "c", "d", "e"}) table.AddLoaded(name, RecordOf(1));
  table.EraseMarked({true, false, true, false, true});
  EXPECT_EQ(NamesOf(table), (std::vector<std::string>{"b", "d"}));
  EXPECT_TRUE(table.Erase("b"));
  EXPECT_FALSE(table.Erase("b"));
  EXPECT_EQ(NamesOf(table), (std::vector<std::string>{"d"}));
  table.Clear();
  EXPECT_TRUE(table.Empty());
}

TEST(EffectTableTest, AnIndexOutOfOrderLoadsSortedAndTheLastEntryOfANameWins) {
  // Reversed, with every fifth name given twice (first a stale record).
  std::vector<EffectTable::Entry> entries;
  for (int i = 2000; i-- > 0;) {
    const std::string name = "fx/" + std::to_string(i);
    if (i % 5 == 0) entries.push_back(EffectTable::Entry{name, RecordOf(1)});
    entries.push_back(EffectTable::Entry{name, RecordOf(static_cast<std::uint64_t>(i) + 100)});
  }
  EffectTable table;
  table.Load(std::move(entries));
  ASSERT_EQ(table.Size(), 2000u);
  for (std::size_t i = 1; i < table.Size(); ++i) {
    EXPECT_TRUE(EffectNameOrder()(table.At(i - 1).name, table.At(i).name)) << i;
  }
  for (int i = 0; i < 2000; ++i) {
    const EffectRecord* record = table.Find("fx/" + std::to_string(i));
    ASSERT_NE(record, nullptr) << i;
    EXPECT_EQ(record->streamId, static_cast<std::uint64_t>(i) + 100) << i;
  }
}

TEST(EffectTableTest, AnIndexInOrderIsTakenAsItIs) {
  std::vector<EffectTable::Entry> entries{{"a", RecordOf(1)}, {"b", RecordOf(2)}, {"aa", RecordOf(3)}};
  EffectTable table;
  table.AddLoaded("stale", RecordOf(9));
  table.Load(std::move(entries));
  EXPECT_EQ(NamesOf(table), (std::vector<std::string>{"a", "b", "aa"}));
}

CacheTimeStamp At(std::uint16_t year, std::uint16_t second, std::uint32_t milliseconds) {
  return CacheTimeStamp{year, 12, 31, 23, 59, second, milliseconds};
}

TEST(EffectTableTest, MarkedUsesReachTheRecordsWhenFoldedAndSurviveChangesOfOtherEntries) {
  EffectTable table;
  for (const char* name : {"a", "b", "c", "d"}) table.AddLoaded(name, RecordOf(1));
  table.MarkUsed(table.IndexOf("b"), At(2026, 59, 999));
  table.MarkUsed(table.IndexOf("d"), At(4095, 7, 1));
  EXPECT_EQ(table.Find("b")->lastUsed, CacheTimeStamp{}) << "a mark changed the record before it was folded";
  // A change of other entries folds the marks first: they are not lost or
  // moved to the entries that take their places.
  std::vector<EffectTable::Change> changes;
  changes.push_back(EffectTable::Change{"a", RecordOf(2), true});
  changes.push_back(EffectTable::Change{"bb", RecordOf(3), false});
  table.Apply(std::move(changes));
  EXPECT_EQ(table.Find("b")->lastUsed, At(2026, 59, 999));
  EXPECT_EQ(table.Find("d")->lastUsed, At(4095, 7, 1));
  EXPECT_EQ(table.Find("bb")->lastUsed, CacheTimeStamp{});
  EXPECT_EQ(table.Find("c")->lastUsed, CacheTimeStamp{});
  EXPECT_EQ(table.IndexOf("a"), EffectTable::kNone);
}

TEST(EffectTableTest, OldestFirstAndEveryChangeSeeTheMarkedUses) {
  EffectTable table;
  for (const char* name : {"a", "b", "c"}) table.AddLoaded(name, RecordOf(1));
  table.MarkUsed(table.IndexOf("a"), At(2030, 1, 0));
  table.MarkUsed(table.IndexOf("c"), At(2029, 1, 0));
  EXPECT_EQ(table.OldestFirst(false), (std::vector<std::size_t>{1, 2, 0}));
  table.MarkUsed(table.IndexOf("b"), At(2031, 0, 0));
  table.Erase("c");
  EXPECT_EQ(table.Find("b")->lastUsed, At(2031, 0, 0));
  table.MarkUsed(table.IndexOf("a"), At(2032, 0, 0));
  EffectTable other;
  table.Swap(other);
  EXPECT_EQ(other.Find("a")->lastUsed, At(2032, 0, 0));
  EXPECT_TRUE(table.Empty());
}

}  // namespace
}  // namespace Tovrel
