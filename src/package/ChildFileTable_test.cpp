#include "package/ChildFileTable.h"

#include <gtest/gtest.h>

#include "package/SectionIO.h"
#include "pagefile/FileDataCorruptException.h"
#include "pagefile/FileIOException.h"
#include "pagefile/InvalidParameterException.h"
#include "support/MemoryDataStream.h"

namespace Tovrel {
namespace {

using Testing::MemoryDataStream;

// Builds the bytes of a child-file section piece by piece.
class Section {
 public:
  Section& Number(std::uint64_t value) {
    SectionIO::Put(bytes_, value);
    return *this;
  }
  Section& Child(std::uint64_t id, std::uint64_t firstPage, std::uint64_t freeBytes,
                 const std::vector<std::uint64_t>& tails) {
    Number(id);
    for (std::uint64_t i = 0; i < kChildFilePages; ++i) Number(firstPage + i);
    Number(freeBytes).Number(tails.size());
    for (std::uint64_t t : tails) Number(t);
    return *this;
  }
  Section& Tail(const StreamTailRecord& t) {
    return Number(t.streamIdentifier)
        .Number(t.childFileIdentifier)
        .Number(t.indexInChild)
        .Number(t.offset)
        .Number(t.size);
  }
  RefPtr<IDataStream> Stream() const { return RefPtr<IDataStream>(new MemoryDataStream(bytes_)); }

 private:
  std::vector<std::uint8_t> bytes_;
};

bool ReadInto(ChildFileTable& table, const Section& section, std::uint64_t limit) {
  RefPtr<IDataStream> stream = section.Stream();
  return table.Read(stream, limit);
}

TEST(ChildFileTableTest, AnEmptySectionIsSixteenBytes) {
  ChildFileTable table;
  EXPECT_EQ(table.GetSaveSize(), 16u);
  auto* memory = new MemoryDataStream(16);
  RefPtr<IDataStream> out(memory);
  ASSERT_TRUE(table.Write(out));
  EXPECT_EQ(memory->Bytes(), std::vector<std::uint8_t>(16, 0));
}

TEST(ChildFileTableTest, ReadsChildFilesTheirListsAndTails) {
  ChildFileTable table;
  Section section;
  section.Number(1).Child(0, 20, 65536 - 300, {4, 2}).Number(2);
  section.Tail({2, 0, 1, 100, 200}).Tail({4, 0, 0, 0, 100});
  ASSERT_TRUE(ReadInto(table, section, 100));
  ASSERT_NE(table.FindChildFile(0), nullptr);
  EXPECT_EQ(table.FindChildFile(0)->page[7], 27u);
  EXPECT_EQ(*table.TailsOf(0), (std::vector<std::uint64_t>{4, 2}));
  EXPECT_EQ(table.FindTail(2)->offset, 100u);
  EXPECT_EQ(table.FindTail(4)->size, 100u);
  EXPECT_EQ(table.FindTail(3), nullptr);
  EXPECT_EQ(table.FindRoom(65536 - 300), 0u);
  EXPECT_EQ(table.FindRoom(65536 - 299), ChildFileTable::kNone);
}

TEST(ChildFileTableTest, ListsChildFilesInIdentifierOrderAndEveryTail) {
  ChildFileTable table;
  Section section;
  section.Number(2).Child(5, 40, 65536, {}).Child(1, 20, 65536 - 300, {4, 2}).Number(2);
  section.Tail({4, 1, 0, 0, 100}).Tail({2, 1, 1, 100, 200});
  ASSERT_TRUE(ReadInto(table, section, 100));
  EXPECT_EQ(table.GetChildFileIdentifier(0), 1u);
  EXPECT_EQ(table.GetChildFileIdentifier(1), 5u);
  EXPECT_EQ(table.GetChildFileIdentifier(2), ChildFileTable::kNone);
  std::vector<StreamTailRecord> tails;
  table.GetTails().ForEach([&tails](const StreamTailRecord& tail) { tails.push_back(tail); });
  ASSERT_EQ(tails.size(), 2u);
  EXPECT_EQ(tails.front().streamIdentifier, 2u);
  EXPECT_EQ(tails.front().offset, 100u);
  EXPECT_EQ(tails.back().streamIdentifier, 4u);
}

TEST(ChildFileTableTest, WritingWhatWasReadGivesTheSameBytes) {
  ChildFileTable table;
  Section section;
  section.Number(2).Child(0, 20, 65536 - 300, {4, 2}).Child(3, 40, 65536, {}).Number(2);
  section.Tail({2, 0, 1, 100, 200}).Tail({4, 0, 0, 0, 100});
  ASSERT_TRUE(ReadInto(table, section, 100));
  RefPtr<IDataStream> original = section.Stream();
  auto* memory = new MemoryDataStream(table.GetSaveSize());
  RefPtr<IDataStream> out(memory);
  ASSERT_TRUE(table.Write(out));
  EXPECT_EQ(memory->Bytes(), static_cast<MemoryDataStream*>(original.Get())->Bytes());
}

TEST(ChildFileTableTest, TailsInAnyOrderAndFarIdentifiersAreReadAndWrittenInStreamOrder) {
  // A limit that lets a file name identifiers far beyond its tail count:
  // such tails are kept, and written back in ascending order.
  const std::uint64_t far = std::uint64_t{1} << 48;
  ChildFileTable table;
  Section section;
  section.Number(1).Child(0, 20, 65536 - 30, {far, 3, far - 2}).Number(3);
  section.Tail({far, 0, 0, 0, 10}).Tail({3, 0, 1, 10, 10}).Tail({far - 2, 0, 2, 20, 10});
  ASSERT_TRUE(ReadInto(table, section, far));
  EXPECT_EQ(table.GetTailCount(), 3u);
  EXPECT_EQ(table.FindTail(far)->offset, 0u);
  EXPECT_EQ(table.FindTail(far - 2)->offset, 20u);
  EXPECT_EQ(table.FindTail(3)->offset, 10u);
  auto* memory = new MemoryDataStream(table.GetSaveSize());
  RefPtr<IDataStream> out(memory);
  ASSERT_TRUE(table.Write(out));
  Section sorted;
  sorted.Number(1).Child(0, 20, 65536 - 30, {far, 3, far - 2}).Number(3);
  sorted.Tail({3, 0, 1, 10, 10}).Tail({far - 2, 0, 2, 20, 10}).Tail({far, 0, 0, 0, 10});
  RefPtr<IDataStream> expected = sorted.Stream();
  EXPECT_EQ(memory->Bytes(), static_cast<MemoryDataStream*>(expected.Get())->Bytes());
  EXPECT_TRUE(table.RemoveTail(far - 2));
  EXPECT_EQ(table.FindTail(far - 2), nullptr);
  EXPECT_EQ(table.GetTailCount(), 2u);
}

TEST(ChildFileTableTest, BelowSixteenStreamsOneChildFileIsTheLimit) {
  EXPECT_EQ(ChildFileTable::ChildFileLimit(15), 1u);
  EXPECT_EQ(ChildFileTable::ChildFileLimit(0), 1u);
  EXPECT_EQ(ChildFileTable::ChildFileLimit(16), 2u);
  EXPECT_EQ(ChildFileTable::ChildFileLimit(65535), 8191u);
  ChildFileTable table;
  Section two;
  two.Number(2).Child(0, 20, 0, {}).Child(1, 30, 0, {}).Number(0);
  EXPECT_THROW(ReadInto(table, two, 15), FileDataCorruptException);
  EXPECT_TRUE(ReadInto(table, two, 16));
}

TEST(ChildFileTableTest, ChildFileChecksAreCorruption) {
  ChildFileTable table;
  Section twice;
  twice.Number(2).Child(1, 20, 0, {}).Child(1, 30, 0, {}).Number(0);
  EXPECT_THROW(ReadInto(table, twice, 100), FileDataCorruptException);
  Section aboveLimit;
  aboveLimit.Number(1).Child(101, 20, 0, {}).Number(0);
  EXPECT_THROW(ReadInto(table, aboveLimit, 100), FileDataCorruptException);
  Section tooFree;
  tooFree.Number(1).Child(0, 20, 65537, {}).Number(0);
  EXPECT_THROW(ReadInto(table, tooFree, 100), FileDataCorruptException);
  Section longList;
  longList.Number(1).Child(0, 20, 0, {1, 2, 3}).Number(0);
  EXPECT_THROW(ReadInto(table, longList, 2), FileDataCorruptException);
  Section shortList;
  shortList.Number(1).Number(0);
  for (int i = 0; i < 8; ++i) shortList.Number(20 + i);
  shortList.Number(0).Number(5).Number(1);
  EXPECT_THROW(ReadInto(table, shortList, 100), FileDataCorruptException);
  Section tooManyTails;
  tooManyTails.Number(0).Number(101);
  EXPECT_THROW(ReadInto(table, tooManyTails, 100), FileDataCorruptException);
}

TEST(ChildFileTableTest, ShortCountsAndRecordsAreIOErrors) {
  ChildFileTable table;
  EXPECT_THROW(ReadInto(table, Section(), 100), FileIOException);
  Section shortRecord;
  shortRecord.Number(1).Number(0).Number(20);
  EXPECT_THROW(ReadInto(table, shortRecord, 100), FileIOException);
  Section noTailCount;
  noTailCount.Number(1);
  noTailCount.Number(0);
  for (int i = 0; i < 9; ++i) noTailCount.Number(20);
  EXPECT_THROW(ReadInto(table, noTailCount, 100), FileIOException);
  Section shortTail;
  shortTail.Number(1).Child(0, 20, 0, {}).Number(1).Number(2).Number(0);
  EXPECT_THROW(ReadInto(table, shortTail, 100), FileIOException);
}

TEST(ChildFileTableTest, TailRecordChecks) {
  const auto read = [](const StreamTailRecord& tail, std::uint64_t limit = 100) {
    ChildFileTable table;
    Section section;
    section.Number(1).Child(0, 20, 0, {}).Number(1).Tail(tail);
    return ReadInto(table, section, limit);
  };
  EXPECT_TRUE(read({5, 0, 0, 65535, 1}));
  EXPECT_FALSE(read({5, 0, 100, 0, 1}));
  EXPECT_TRUE(read({5, 0, 99, 0, 1}));
  EXPECT_THROW(read({~std::uint64_t{0}, 0, 0, 0, 1}), InvalidParameterException);
  EXPECT_THROW(read({101, 0, 0, 0, 1}), InvalidParameterException);
  EXPECT_TRUE(read({100, 0, 0, 0, 1}));
  EXPECT_THROW(read({5, 1, 0, 0, 1}), InvalidParameterException);
  EXPECT_THROW(read({5, 0, 0, 65536, 1}), InvalidParameterException);
  EXPECT_THROW(read({5, 0, 0, 0, 8192}), InvalidParameterException);
  ChildFileTable table;
  Section twice;
  twice.Number(1).Child(0, 20, 0, {}).Number(2).Tail({5, 0, 0, 0, 1}).Tail({5, 0, 1, 1, 1});
  EXPECT_THROW(ReadInto(table, twice, 100), FileDataCorruptException);
}

TEST(ChildFileTableTest, AddingTailsRefusesMissingChildFilesLackOfRoomOverlapsAndSecondTails) {
  ChildFileTable table;
  const std::uint64_t pages[kChildFilePages] = {20, 21, 22, 23, 24, 25, 26, 27};
  ASSERT_EQ(table.AddChildFile(pages), 0u);
  EXPECT_FALSE(table.AddTail({1, 1, 0, 0, 10}));
  EXPECT_TRUE(table.AddTail({1, 0, 9, 0, 8000}));
  EXPECT_EQ(table.FindTail(1)->indexInChild, 0u);
  EXPECT_FALSE(table.AddTail({1, 0, 0, 8000, 10}));
  EXPECT_FALSE(table.AddTail({2, 0, 0, 7999, 10}));
  EXPECT_TRUE(table.AddTail({2, 0, 0, 8000, 10}));
  EXPECT_EQ(table.FindTail(2)->indexInChild, 1u);
  EXPECT_EQ(table.FindChildFile(0)->freeBytes, 65536u - 8010);
  EXPECT_FALSE(table.AddTail({3, 0, 0, 8010, 65536 - 8009}));
  EXPECT_EQ(table.FindRoom(65536 - 8010), 0u);
  EXPECT_EQ(table.FindRoom(65536 - 8009), ChildFileTable::kNone);
}

TEST(ChildFileTableTest, RemovingATailMovesTheOnesBehindIt) {
  ChildFileTable table;
  const std::uint64_t pages[kChildFilePages] = {20, 21, 22, 23, 24, 25, 26, 27};
  table.AddChildFile(pages);
  ASSERT_TRUE(table.AddTail({7, 0, 0, 0, 100}));
  ASSERT_TRUE(table.AddTail({3, 0, 0, 100, 50}));
  ASSERT_TRUE(table.AddTail({9, 0, 0, 150, 25}));
  ASSERT_TRUE(table.RemoveTail(3));
  EXPECT_FALSE(table.RemoveTail(3));
  EXPECT_EQ(*table.TailsOf(0), (std::vector<std::uint64_t>{7, 9}));
  EXPECT_EQ(table.FindTail(7)->offset, 0u);
  EXPECT_EQ(table.FindTail(9)->offset, 100u);
  EXPECT_EQ(table.FindTail(9)->indexInChild, 1u);
  EXPECT_EQ(table.FindChildFile(0)->freeBytes, 65536u - 125);
  EXPECT_TRUE(table.AddTail({3, 0, 0, 125, 10}));
}

TEST(ChildFileTableTest, RemovingATailNeverFreesMoreThanAChildFileHolds) {
  ChildFileTable table;
  Section section;
  section.Number(1).Child(0, 20, 0, {5}).Number(1).Tail({5, 0, 0, 0, 1});
  ASSERT_TRUE(ReadInto(table, section, 100));
  EXPECT_TRUE(table.RemoveTail(5));
  EXPECT_EQ(table.FindChildFile(0)->freeBytes, 1u);
}

TEST(ChildFileTableTest, ChildFilesAreListedInIdentifierOrderAndGapsAreFilledFirst) {
  ChildFileTable table;
  Section section;
  section.Number(2).Child(4, 40, 100, {}).Child(1, 20, 50, {}).Number(0);
  ASSERT_TRUE(ReadInto(table, section, 100));
  EXPECT_EQ(table.FindRoom(10), 1u);
  EXPECT_EQ(table.FindRoom(60), 4u);
  const std::uint64_t pages[kChildFilePages] = {60, 61, 62, 63, 64, 65, 66, 67};
  EXPECT_EQ(table.AddChildFile(pages), 0u);
  EXPECT_EQ(table.FindRoom(10), 0u);
  EXPECT_EQ(table.AddChildFile(pages), 2u);
  EXPECT_EQ(table.AddChildFile(pages), 3u);
  EXPECT_EQ(table.AddChildFile(pages), 5u);
  EXPECT_EQ(table.GetChildFileCount(), 6u);
}

TEST(ChildFileTableTest, OnlyAChildFileWithoutTailsIsRemovedAndItsIdentifierIsReused) {
  ChildFileTable table;
  const std::uint64_t pagesA[kChildFilePages] = {10, 11, 12, 13, 14, 15, 16, 17};
  const std::uint64_t pagesB[kChildFilePages] = {20, 21, 22, 23, 24, 25, 26, 27};
  const std::uint64_t a = table.AddChildFile(pagesA);
  const std::uint64_t b = table.AddChildFile(pagesB);
  ASSERT_TRUE(table.AddTail(StreamTailRecord{5, a, 0, 0, 100}));
  EXPECT_FALSE(table.RemoveChildFile(a));
  EXPECT_FALSE(table.RemoveChildFile(99));
  ASSERT_TRUE(table.SetChildFilePage(b, 7, 40));
  EXPECT_EQ(table.FindChildFile(b)->page[7], 40u);
  EXPECT_FALSE(table.SetChildFilePage(b, 8, 41));
  ASSERT_TRUE(table.RemoveTail(5));
  EXPECT_TRUE(table.RemoveChildFile(a));
  EXPECT_EQ(table.GetChildFileCount(), 1u);
  EXPECT_EQ(table.FindChildFile(a), nullptr);
  EXPECT_EQ(table.FindRoom(100), b);
  EXPECT_EQ(table.AddChildFile(pagesA), a);
  EXPECT_EQ(table.GetChildFileIdentifier(0), a);
}

TEST(ChildFileTableTest, AChildFileClosedToNewTailsIsPassedOverButKeepsItsTails) {
  ChildFileTable table;
  Section section;
  section.Number(3).Child(0, 20, 100, {}).Child(1, 30, 60000, {7}).Child(2, 40, 65536, {}).Number(1);
  section.Tail({7, 1, 0, 0, 5536});
  ASSERT_TRUE(ReadInto(table, section, 100));
  EXPECT_EQ(table.FindRoom(200), 1u);
  ASSERT_TRUE(table.CloseToNewTails(1));
  EXPECT_FALSE(table.CloseToNewTails(9));
  EXPECT_EQ(table.FindRoom(200), 2u);
  EXPECT_EQ(table.FindRoom(100), 0u);
  EXPECT_FALSE(table.AddTail({8, 1, 0, 5536, 10}));
  EXPECT_EQ(table.FindChildFile(1)->freeBytes, 60000u);
  // Its slot stays closed when the index is laid out again.
  const std::uint64_t pages[kChildFilePages] = {60, 61, 62, 63, 64, 65, 66, 67};
  ASSERT_TRUE(table.RemoveChildFile(0));
  EXPECT_EQ(table.AddChildFile(pages), 0u);
  EXPECT_EQ(table.FindRoom(65536), 0u);
  EXPECT_EQ(table.FindRoom(65535 - 5536), 0u);
  ASSERT_TRUE(table.AddTail({9, 0, 0, 0, 65536}));
  EXPECT_EQ(table.FindRoom(200), 2u);
  EXPECT_EQ(*table.TailsOf(1), (std::vector<std::uint64_t>{7}));
}

}  // namespace
}  // namespace Tovrel
