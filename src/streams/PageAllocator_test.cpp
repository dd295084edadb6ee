#include "streams/PageAllocator.h"

#include <gtest/gtest.h>

#include <vector>

#include "pagefile/FileDataCorruptException.h"
#include "pagefile/FileIOException.h"
#include "pagefile/InvalidParameterException.h"
#include "pagefile/LittleEndian.h"
#include "pagefile/OutOfMemoryException.h"
#include "support/MemoryDataStream.h"

namespace Tovrel {
namespace {

using Testing::MemoryDataStream;

RefPtr<PageAllocator> NewAllocator() { return RefPtr<PageAllocator>(new PageAllocator); }

// The saved form of a table with the given links.
std::vector<std::uint8_t> Saved(const std::vector<std::uint64_t>& links) {
  std::vector<std::uint8_t> bytes(8 + 8 * links.size());
  LittleEndian::Store64(bytes.data(), links.size());
  for (std::size_t i = 0; i < links.size(); ++i) LittleEndian::Store64(bytes.data() + 8 + 8 * i, links[i]);
  return bytes;
}

RefPtr<IDataStream> StreamOf(std::vector<std::uint8_t> bytes) {
  return RefPtr<IDataStream>(new MemoryDataStream(std::move(bytes)));
}

TEST(PageAllocatorTest, FirstPagesAreTenAndElevenAndAChainLinksThem) {
  auto pages = NewAllocator();
  EXPECT_EQ(pages->AllocatePage(0), 10u);
  EXPECT_EQ(pages->AllocatePage(0), 11u);
  EXPECT_EQ(pages->AllocatePage(10), 12u);
  EXPECT_EQ(pages->GetNextPage(10), 12u);
  EXPECT_EQ(pages->GetNextPage(12), 0u);
  EXPECT_EQ(pages->GetNextPage(11), 0u);
  EXPECT_EQ(pages->GetHighestPage(), 12u);
}

TEST(PageAllocatorTest, ClaimingPageTenTwiceSucceedsOnce) {
  auto pages = NewAllocator();
  EXPECT_TRUE(pages->ClaimPage(10));
  EXPECT_EQ(pages->GetTableLength(), 1u);
  EXPECT_FALSE(pages->ClaimPage(10));
  EXPECT_TRUE(pages->IsPageAllocated(10));
}

TEST(PageAllocatorTest, ClaimingPastTheTableQueuesTheGapInAscendingOrder) {
  auto pages = NewAllocator();
  EXPECT_TRUE(pages->ClaimPage(15));
  EXPECT_EQ(pages->GetTableLength(), 6u);
  for (std::uint64_t id = 10; id < 15; ++id) EXPECT_FALSE(pages->IsPageAllocated(id)) << id;
  EXPECT_TRUE(pages->IsPageAllocated(15));
  EXPECT_EQ(pages->GetHighestPage(), 15u);
  for (std::uint64_t id = 10; id < 15; ++id) EXPECT_EQ(pages->AllocatePage(0), id);
  EXPECT_EQ(pages->AllocatePage(0), 16u);
}

TEST(PageAllocatorTest, FreedPagesAreReusedInTheOrderTheyWereFreed) {
  auto pages = NewAllocator();
  for (int i = 0; i < 4; ++i) pages->AllocatePage(0);
  pages->FreePage(12);
  pages->FreePage(11);
  EXPECT_FALSE(pages->IsPageAllocated(12));
  EXPECT_EQ(pages->GetNextPage(12), 1u);
  EXPECT_EQ(pages->AllocatePage(0), 12u);
  EXPECT_EQ(pages->AllocatePage(0), 11u);
  EXPECT_EQ(pages->AllocatePage(0), 14u);
}

TEST(PageAllocatorTest, AQueueOfOnlyStaleIdsIsDrainedAndANewPageAppended) {
  auto pages = NewAllocator();
  for (int i = 0; i < 3; ++i) pages->AllocatePage(0);
  pages->FreePage(10);
  pages->FreePage(11);
  EXPECT_TRUE(pages->ClaimPage(10));
  EXPECT_TRUE(pages->ClaimPage(11));
  EXPECT_EQ(pages->AllocatePage(0), 13u);
  pages->FreePage(12);
  EXPECT_EQ(pages->AllocatePage(0), 12u);  // the stale ids are gone from the queue
}

TEST(PageAllocatorTest, PagesPastTheTableAreFree) {
  auto pages = NewAllocator();
  pages->AllocatePage(0);
  EXPECT_EQ(pages->GetNextPage(500), 1u);
  EXPECT_FALSE(pages->IsPageAllocated(500));
  EXPECT_EQ(pages->GetNextPage(0xFFFFF), 1u);
}

TEST(PageAllocatorTest, APreviousOutsideThePageRangeCountsAsNone) {
  auto pages = NewAllocator();
  EXPECT_EQ(pages->AllocatePage(5), 10u);
  EXPECT_EQ(pages->AllocatePage(0x100000), 11u);
  EXPECT_EQ(pages->GetNextPage(10), 0u);
  EXPECT_THROW(pages->FreePage(5), InvalidParameterException);
}

TEST(PageAllocatorTest, PageArgumentsOutsideThePageRangeAreRefused) {
  auto pages = NewAllocator();
  for (std::uint64_t id : {std::uint64_t{0}, std::uint64_t{9}, std::uint64_t{0x100000}}) {
    EXPECT_THROW(pages->FreePage(id), InvalidParameterException);
    EXPECT_THROW(pages->ClaimPage(id), InvalidParameterException);
    EXPECT_THROW(pages->IsPageAllocated(id), InvalidParameterException);
    EXPECT_THROW(pages->GetNextPage(id), InvalidParameterException);
  }
  EXPECT_EQ(pages->GetTableLength(), 0u);
}

TEST(PageAllocatorTest, FreeingAPagePastTheTableIsRefused) {
  auto pages = NewAllocator();
  pages->AllocatePage(0);
  EXPECT_THROW(pages->FreePage(11), InvalidParameterException);
  EXPECT_EQ(pages->AllocatePage(0), 11u);
}

TEST(PageAllocatorTest, APreviousThatIsNotTheEndOfItsChainIsRefused) {
  auto pages = NewAllocator();
  pages->AllocatePage(0);
  pages->AllocatePage(10);  // 10 -> 11
  EXPECT_THROW(pages->AllocatePage(10), InvalidParameterException);
  EXPECT_TRUE(pages->IsPageAllocated(12));  // the new page stays in use
  EXPECT_EQ(pages->GetNextPage(10), 11u);
  EXPECT_THROW(pages->AllocatePage(200), InvalidParameterException);  // past the table
  EXPECT_THROW(pages->AllocatePage(14), InvalidParameterException);   // would chain to itself
  EXPECT_EQ(pages->GetNextPage(14), 0u);
}

TEST(PageAllocatorTest, FreeingAChainFromItsHeadLeavesNoLinkIntoIt) {
  auto pages = NewAllocator();
  pages->AllocatePage(0);
  pages->AllocatePage(10);
  pages->AllocatePage(11);  // 10 -> 11 -> 12
  for (std::uint64_t page = 10; page != 0;) {
    const std::uint64_t next = pages->GetNextPage(page);
    pages->FreePage(page);
    page = next;
  }
  for (std::uint64_t id = 10; id <= 12; ++id) EXPECT_EQ(pages->GetNextPage(id), 1u);
  EXPECT_EQ(pages->AllocatePage(0), 10u);
  EXPECT_EQ(pages->AllocatePage(10), 11u);
}

TEST(PageAllocatorTest, RunningOutOfPageIdsThrowsAndKeepsTheAppendedEntry) {
  auto pages = NewAllocator();
  EXPECT_TRUE(pages->ClaimPage(0xFFFFF));
  EXPECT_EQ(pages->GetTableLength(), 0xFFFF6u);
  // Every queued id is free, so all of them are handed out first.
  for (std::uint64_t id = 10; id < 0xFFFFF; ++id) ASSERT_EQ(pages->AllocatePage(0), id);
  EXPECT_THROW(pages->AllocatePage(0), OutOfMemoryException);
  EXPECT_EQ(pages->GetTableLength(), 0xFFFF7u);
}

TEST(PageAllocatorTest, AnEmptyTableSavesAsEightBytes) {
  auto pages = NewAllocator();
  EXPECT_EQ(pages->GetTableSaveSize(), 8u);
  auto* memory = new MemoryDataStream(8);
  RefPtr<IDataStream> stream(memory);
  ASSERT_TRUE(pages->SaveTable(stream));
  EXPECT_EQ(memory->Bytes(), Saved({}));
}

TEST(PageAllocatorTest, SaveThenLoadGivesTheSameLinksAndAnAscendingFreeQueue) {
  auto pages = NewAllocator();
  for (int i = 0; i < 8; ++i) pages->AllocatePage(i % 2 == 0 ? 0 : 10 + i - 1);
  pages->FreePage(16);
  pages->FreePage(12);
  pages->FreePage(14);
  auto* memory = new MemoryDataStream(pages->GetTableSaveSize());
  RefPtr<IDataStream> stream(memory);
  ASSERT_TRUE(pages->SaveTable(stream));
  EXPECT_EQ(stream->GetPosition(), pages->GetTableSaveSize());

  auto loaded = NewAllocator();
  RefPtr<IDataStream> in = StreamOf(memory->Bytes());
  ASSERT_TRUE(loaded->LoadTable(in));
  for (std::uint64_t id = 10; id < 18; ++id) EXPECT_EQ(loaded->GetNextPage(id), pages->GetNextPage(id)) << id;
  EXPECT_EQ(loaded->GetHighestPage(), 17u);
  EXPECT_EQ(loaded->AllocatePage(0), 12u);
  EXPECT_EQ(loaded->AllocatePage(0), 14u);
  EXPECT_EQ(loaded->AllocatePage(0), 16u);
  EXPECT_EQ(loaded->AllocatePage(0), 18u);
}

TEST(PageAllocatorTest, ASavedCountAboveThePageLimitIsRefused) {
  auto pages = NewAllocator();
  auto bytes = Saved({0});
  LittleEndian::Store64(bytes.data(), 0xFFFF7);
  RefPtr<IDataStream> stream = StreamOf(bytes);
  EXPECT_THROW(pages->LoadTable(stream), FileDataCorruptException);
  EXPECT_EQ(pages->GetTableLength(), 0u);
}

TEST(PageAllocatorTest, ATableShorterThanItsCountIsRefused) {
  auto pages = NewAllocator();
  auto bytes = Saved({0, 1, 0});
  bytes.resize(bytes.size() - 1);
  RefPtr<IDataStream> stream = StreamOf(bytes);
  EXPECT_THROW(pages->LoadTable(stream), FileDataCorruptException);
  RefPtr<IDataStream> tiny = StreamOf({1, 2, 3});
  EXPECT_THROW(pages->LoadTable(tiny), FileDataCorruptException);
  EXPECT_EQ(pages->GetTableLength(), 0u);
}

TEST(PageAllocatorTest, TwoPagesLinkingToOneSuccessorAreRefused) {
  auto pages = NewAllocator();
  RefPtr<IDataStream> stream = StreamOf(Saved({12, 12, 0}));
  EXPECT_THROW(pages->LoadTable(stream), FileDataCorruptException);
  EXPECT_EQ(pages->GetTableLength(), 0u);
}

TEST(PageAllocatorTest, ALinkPastTheTableIsRefused) {
  auto pages = NewAllocator();
  RefPtr<IDataStream> stream = StreamOf(Saved({11, 0x5000}));
  EXPECT_THROW(pages->LoadTable(stream), FileDataCorruptException);
}

TEST(PageAllocatorTest, AShortWriteOfTheTableThrowsWithCodeZero) {
  auto pages = NewAllocator();
  for (int i = 0; i < 3; ++i) pages->AllocatePage(0);
  for (std::uint64_t room : {std::uint64_t{4}, std::uint64_t{20}}) {
    auto* memory = new MemoryDataStream(room);
    RefPtr<IDataStream> stream(memory);
    try {
      pages->SaveTable(stream);
      FAIL() << "saved into " << room << " bytes";
    } catch (const FileIOException& e) {
      EXPECT_EQ(e.errorCode, 0);
    }
  }
}

TEST(PageAllocatorTest, LinksThatAreNotPageIdsSurviveALoadAndASave) {
  auto pages = NewAllocator();
  const std::vector<std::uint64_t> links{5, 0x123456789ull, 0, 1, ~std::uint64_t{0} - 1};
  const auto saved = Saved(links);
  RefPtr<IDataStream> in = StreamOf(saved);
  ASSERT_TRUE(pages->LoadTable(in));
  EXPECT_EQ(pages->GetNextPage(10), 5u);
  EXPECT_EQ(pages->GetNextPage(11), 0x123456789ull);
  EXPECT_TRUE(pages->IsPageAllocated(14));
  auto* memory = new MemoryDataStream(pages->GetTableSaveSize());
  RefPtr<IDataStream> out(memory);
  ASSERT_TRUE(pages->SaveTable(out));
  EXPECT_EQ(memory->Bytes(), saved);
  pages->FreePage(11);
  EXPECT_EQ(pages->GetNextPage(11), 1u);
  EXPECT_EQ(pages->AllocatePage(0), 13u);  // free in the loaded table, queued first
  EXPECT_EQ(pages->AllocatePage(0), 11u);
  EXPECT_EQ(pages->GetNextPage(11), 0u);
}

TEST(PageAllocatorTest, ResetEmptiesEverything) {
  auto pages = NewAllocator();
  pages->ClaimPage(40);
  pages->Reset();
  EXPECT_EQ(pages->GetTableLength(), 0u);
  EXPECT_EQ(pages->GetHighestPage(), 10u);
  EXPECT_EQ(pages->AllocatePage(0), 10u);
}

TEST(PageAllocatorTest, AMovedPageTakesItsPlaceInTheChainAndLeavesAFreePage) {
  auto pages = NewAllocator();
  const std::uint64_t a = pages->AllocatePage(0);  // 10
  const std::uint64_t b = pages->AllocatePage(a);  // 11
  const std::uint64_t c = pages->AllocatePage(b);  // 12
  const std::uint64_t spare = pages->AllocatePage(0);  // 13
  pages->FreePage(spare);
  EXPECT_EQ(pages->MovePage(b, spare), a);
  EXPECT_EQ(pages->GetNextPage(a), spare);
  EXPECT_EQ(pages->GetNextPage(spare), c);
  EXPECT_FALSE(pages->IsPageAllocated(b));
  // The reverse links follow: moving the chain's last page updates the new one.
  EXPECT_EQ(pages->MovePage(c, b), spare);
  EXPECT_EQ(pages->GetNextPage(spare), b);
  EXPECT_EQ(pages->GetNextPage(b), 0u);
  // The first page of a chain has no page before it.
  pages->FreePage(a);
  pages->ClaimPage(a);
  EXPECT_EQ(pages->MovePage(a, c), 0u);
  EXPECT_THROW(pages->MovePage(a, c), InvalidParameterException);       // a is free now
  EXPECT_THROW(pages->MovePage(spare, b), InvalidParameterException);   // b is in use
  EXPECT_THROW(pages->MovePage(spare, 40), InvalidParameterException);  // past the table
}

TEST(PageAllocatorTest, CuttingTheTableDropsOnlyFreeEntriesAndReusesTheLowestFirst) {
  auto pages = NewAllocator();
  for (int i = 0; i < 6; ++i) pages->AllocatePage(0);  // 10 .. 15
  pages->FreePage(14);
  pages->FreePage(11);
  pages->FreePage(13);
  EXPECT_THROW(pages->CutTable(4), InvalidParameterException);  // 14 free but 15 in use
  pages->FreePage(15);
  pages->CutTable(4);
  EXPECT_EQ(pages->GetTableLength(), 4u);
  EXPECT_EQ(pages->GetHighestPage(), 12u);
  EXPECT_EQ(pages->AllocatePage(0), 11u);
  EXPECT_EQ(pages->AllocatePage(0), 13u);
  EXPECT_EQ(pages->AllocatePage(0), 14u);
}

}  // namespace
}  // namespace Tovrel
