#include "pagefile/ChildFileSeeker.h"

#include <gtest/gtest.h>

#include <map>

#include "pagefile/FileDataCorruptException.h"
#include "pagefile/InvalidParameterException.h"

namespace Tovrel {
namespace {

// An allocation table held as a plain map of links, enough for the seeker,
// which only asks for the page after a page.
class LinkTable : public IPageAllocator {
 protected:
  ~LinkTable() override = default;

 public:
  std::uint64_t AllocatePage(std::uint64_t) override { return 0; }
  void FreePage(std::uint64_t) override {}
  bool ClaimPage(std::uint64_t) override { return false; }
  bool IsPageAllocated(std::uint64_t page) override { return links.count(page) != 0; }
  std::uint64_t GetNextPage(std::uint64_t page) override {
    ++nextPageCalls;
    const auto found = links.find(page);
    return found == links.end() ? kFreeLink : found->second;
  }
  // Links ids[0] -> ids[1] -> ... -> end.
  void Chain(const std::vector<std::uint64_t>& ids) {
    for (std::size_t i = 0; i < ids.size(); ++i) links[ids[i]] = i + 1 < ids.size() ? ids[i + 1] : kEndLink;
  }

  std::map<std::uint64_t, std::uint64_t> links;
  int nextPageCalls = 0;
};

// A child-file table of explicit records.
class Directory : public IChildFileLookup {
 public:
  const StreamTailRecord* FindTail(std::uint64_t id) const override {
    const auto found = tails.find(id);
    return found == tails.end() ? nullptr : &found->second;
  }
  const ChildFileRecord* FindChildFile(std::uint64_t id) const override {
    const auto found = children.find(id);
    return found == children.end() ? nullptr : &found->second;
  }
  std::map<std::uint64_t, StreamTailRecord> tails;
  std::map<std::uint64_t, ChildFileRecord> children;
};

ChildFileRecord Child(std::uint64_t id, std::uint64_t firstPage, std::uint64_t freeBytes) {
  ChildFileRecord child{id, {}, freeBytes};
  for (std::uint64_t i = 0; i < kChildFilePages; ++i) child.page[i] = firstPage + i;
  return child;
}

class ChildFileSeekerTest : public ::testing::Test {
 protected:
  ::testing::AssertionResult Cursor(bool found, std::uint64_t index, std::uint64_t offset, std::uint64_t wantIndex,
                                    std::uint64_t wantOffset) {
    if (!found) return ::testing::AssertionFailure() << "not found";
    if (index != wantIndex || offset != wantOffset) {
      return ::testing::AssertionFailure() << "page " << index << " offset " << offset;
    }
    return ::testing::AssertionSuccess();
  }
  ::testing::AssertionResult Located(std::int32_t position, std::uint64_t wantIndex, std::uint64_t wantOffset) {
    std::uint64_t index = 99, offset = 99;
    const bool found = seeker_->Locate(index, offset, position);
    return Cursor(found, index, offset, wantIndex, wantOffset);
  }
  ::testing::AssertionResult Advanced(PageCursor from, std::uint32_t delta, std::uint64_t wantIndex,
                                      std::uint64_t wantOffset) {
    std::uint64_t index = 99, offset = 99;
    const bool found = seeker_->Advance(index, offset, from, delta);
    return Cursor(found, index, offset, wantIndex, wantOffset);
  }
  ::testing::AssertionResult RangeIs(std::uint64_t i, std::uint64_t begin, std::uint64_t end) {
    const PageRange range = seeker_->pageRanges[i];
    if (range.begin == begin && range.end == end) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "range (" << range.begin << ", " << range.end << ")";
  }

  RefPtr<LinkTable> links_{new LinkTable};
  RefPtr<ChildFileSeeker> seeker_{new ChildFileSeeker};
};

TEST_F(ChildFileSeekerTest, StartsEmpty) {
  EXPECT_EQ(seeker_->pageCount, 0u);
  EXPECT_EQ(seeker_->totalSize, 0u);
  EXPECT_EQ(seeker_->pageIds, nullptr);
  EXPECT_EQ(seeker_->pageRanges, nullptr);
  std::uint64_t index = 7, offset = 7;
  EXPECT_FALSE(seeker_->Locate(index, offset, 0));
  EXPECT_EQ(index, 0u);
  EXPECT_EQ(offset, 0u);
}

TEST_F(ChildFileSeekerTest, WholePagesWithoutTailEndAtTheLastPageEnd) {
  links_->Chain({20, 31, 12});
  ASSERT_TRUE(seeker_->AttachStream(links_.Get(), StreamEntry{5, 3 * 8192, 20, 3}, TailLocation{}));
  EXPECT_EQ(seeker_->pageCount, 3u);
  EXPECT_EQ(seeker_->GetTailPageCount(), 0u);
  EXPECT_EQ(seeker_->pageIds[0], 20u);
  EXPECT_EQ(seeker_->pageIds[1], 31u);
  EXPECT_EQ(seeker_->pageIds[2], 12u);
  for (std::uint64_t i = 0; i < 3; ++i) {
    EXPECT_EQ(seeker_->pageRanges[i].begin, 0u);
    EXPECT_EQ(seeker_->pageRanges[i].end, 8192u);
  }
  EXPECT_TRUE(Located(24576, 2u, 8192u));
  EXPECT_TRUE(Located(8193, 1u, 1u));
  EXPECT_EQ(links_->nextPageCalls, 3);
}

TEST_F(ChildFileSeekerTest, TailCrossingIntoTheNextChildPageHasTwoPieces) {
  links_->Chain({40, 41});
  ASSERT_TRUE(seeker_->AttachStream(links_.Get(), StreamEntry{1, 100, 0, 0}, TailLocation{40, 41, 8150, 100}));
  EXPECT_EQ(seeker_->pageCount, 2u);
  EXPECT_EQ(seeker_->GetTailPageCount(), 2u);
  EXPECT_TRUE(RangeIs(0, 8150u, 8192u));
  EXPECT_TRUE(RangeIs(1, 0u, 58u));
  std::uint64_t index = 9, offset = 9;
  EXPECT_TRUE(Located(42, 1u, 0u));
  EXPECT_TRUE(Located(41, 0u, 8191u));
  EXPECT_TRUE(Located(100, 1u, 58u));
  EXPECT_FALSE(seeker_->Locate(index, offset, 101));
}

TEST_F(ChildFileSeekerTest, TailEndingExactlyAtThePageEndNeedsNoSecondPage) {
  ASSERT_TRUE(seeker_->AttachStream(links_.Get(), StreamEntry{1, 8192 + 42, 50, 1}, TailLocation{60, 0, 8150, 42}));
  EXPECT_EQ(seeker_->pageCount, 3u);
  EXPECT_EQ(seeker_->GetTailPageCount(), 2u);
  EXPECT_EQ(seeker_->pageIds[2], 0u);
  EXPECT_TRUE(RangeIs(2, 0u, 0u));
  EXPECT_TRUE(Located(8192 + 42, 2u, 0u));
}

TEST_F(ChildFileSeekerTest, TailInsideOnePageHasOnePiece) {
  links_->Chain({70});
  ASSERT_TRUE(seeker_->AttachStream(links_.Get(), StreamEntry{1, 8192 + 10, 70, 1}, TailLocation{80, 0, 100, 10}));
  EXPECT_EQ(seeker_->pageCount, 2u);
  EXPECT_EQ(seeker_->GetTailPageCount(), 1u);
  EXPECT_TRUE(RangeIs(1, 100u, 110u));
  EXPECT_TRUE(Located(8192 + 3, 1u, 103u));
  EXPECT_TRUE(Located(8192 + 10, 1u, 110u));
}

TEST_F(ChildFileSeekerTest, SizeThatDisagreesWithPagesAndTailIsCorrupt) {
  links_->Chain({20, 21});
  EXPECT_THROW(seeker_->AttachStream(links_.Get(), StreamEntry{1, 2 * 8192 + 5, 20, 2}, TailLocation{}),
               FileDataCorruptException);
  EXPECT_THROW(seeker_->AttachStream(links_.Get(), StreamEntry{1, 8192, 20, 2}, TailLocation{}),
               FileDataCorruptException);
  EXPECT_EQ(seeker_->pageCount, 0u);
  std::uint64_t index = 0, offset = 0;
  EXPECT_FALSE(seeker_->Locate(index, offset, 0));
}

TEST_F(ChildFileSeekerTest, ImpossiblePageCountsAreCorruptWithoutWalking) {
  for (std::uint64_t n : {std::uint64_t{0xFFFF5}, ~std::uint64_t{0}, ~std::uint64_t{0} >> 13}) {
    EXPECT_THROW(seeker_->AttachStream(links_.Get(), StreamEntry{1, n * 8192, 20, n}, TailLocation{}),
                 FileDataCorruptException)
        << n;
  }
  EXPECT_EQ(links_->nextPageCalls, 0);
}

TEST_F(ChildFileSeekerTest, ChainThatLeavesThePageIdsIsCorrupt) {
  links_->links[20] = IPageAllocator::kFreeLink;
  EXPECT_THROW(seeker_->AttachStream(links_.Get(), StreamEntry{1, 2 * 8192, 20, 2}, TailLocation{}),
               FileDataCorruptException);
  EXPECT_THROW(seeker_->AttachStream(links_.Get(), StreamEntry{1, 8192, 9, 1}, TailLocation{}),
               FileDataCorruptException);
  EXPECT_THROW(seeker_->AttachStream(links_.Get(), StreamEntry{1, 8192, 0x100000, 1}, TailLocation{}),
               FileDataCorruptException);
}

TEST_F(ChildFileSeekerTest, ChainThatRunsIntoItselfIsCorrupt) {
  links_->links[20] = 21;
  links_->links[21] = 20;
  EXPECT_THROW(seeker_->AttachStream(links_.Get(), StreamEntry{1, 3 * 8192, 20, 3}, TailLocation{}),
               FileDataCorruptException);
  links_->Chain({30});
  EXPECT_THROW(seeker_->AttachStream(links_.Get(), StreamEntry{1, 8192 + 5, 30, 1}, TailLocation{30, 0, 0, 5}),
               FileDataCorruptException);
}

TEST_F(ChildFileSeekerTest, BadTailPagesAreCorrupt) {
  EXPECT_THROW(seeker_->AttachStream(links_.Get(), StreamEntry{1, 10, 0, 0}, TailLocation{5, 0, 0, 10}),
               FileDataCorruptException);
  links_->Chain({40, 41});
  EXPECT_THROW(seeker_->AttachStream(links_.Get(), StreamEntry{1, 100, 0, 0}, TailLocation{40, 42, 8150, 100}),
               FileDataCorruptException);
  EXPECT_THROW(seeker_->AttachStream(links_.Get(), StreamEntry{1, 100, 0, 0}, TailLocation{40, 0, 8150, 100}),
               FileDataCorruptException);
  EXPECT_THROW(seeker_->AttachStream(links_.Get(), StreamEntry{1, 100, 0, 0}, TailLocation{40, 0, 9000, 100}),
               FileDataCorruptException);
}

TEST_F(ChildFileSeekerTest, EmptyStreamGetsNoSeeker) {
  EXPECT_THROW(seeker_->AttachStream(links_.Get(), StreamEntry{1, 0, 0, 0}, TailLocation{}),
               FileDataCorruptException);
  EXPECT_EQ(seeker_->pageCount, 0u);
  EXPECT_EQ(seeker_->pageIds, nullptr);
}

TEST_F(ChildFileSeekerTest, HoldsTheAllocatorUntilReattachedOrDestroyed) {
  RefPtr<LinkTable> other(new LinkTable);
  const long before = links_->GetRefCount();
  ASSERT_TRUE(seeker_->AttachStream(links_.Get(), StreamEntry{1, 10, 0, 0}, TailLocation{40, 0, 0, 10}));
  EXPECT_EQ(links_->GetRefCount(), before + 1);
  ASSERT_TRUE(seeker_->AttachStream(other.Get(), StreamEntry{1, 10, 0, 0}, TailLocation{40, 0, 0, 10}));
  EXPECT_EQ(links_->GetRefCount(), before);
  EXPECT_EQ(other->GetRefCount(), 2);
  EXPECT_THROW(seeker_->AttachStream(links_.Get(), StreamEntry{1, 0, 0, 0}, TailLocation{}),
               FileDataCorruptException);
  EXPECT_EQ(links_->GetRefCount(), before + 1);
  EXPECT_EQ(other->GetRefCount(), 1);
  seeker_.Reset();
  EXPECT_EQ(links_->GetRefCount(), before);
}

TEST_F(ChildFileSeekerTest, ReattachingStartsAFreshTable) {
  links_->Chain({20, 21, 22});
  ASSERT_TRUE(seeker_->AttachStream(links_.Get(), StreamEntry{1, 3 * 8192, 20, 3}, TailLocation{}));
  ASSERT_TRUE(seeker_->AttachStream(links_.Get(), StreamEntry{2, 50, 0, 0}, TailLocation{90, 0, 10, 50}));
  EXPECT_EQ(seeker_->pageCount, 1u);
  EXPECT_EQ(seeker_->totalSize, 50u);
  EXPECT_EQ(seeker_->pageIds[0], 90u);
  EXPECT_EQ(seeker_->GetEntry().identifier, 2u);
  EXPECT_EQ(seeker_->GetTail().offsetInPage, 10u);
}

TEST_F(ChildFileSeekerTest, PositionOfCoversEveryPieceAndTheEnd) {
  links_->Chain({20, 40, 41});
  ASSERT_TRUE(
      seeker_->AttachStream(links_.Get(), StreamEntry{1, 8192 + 100, 20, 1}, TailLocation{40, 41, 8150, 100}));
  EXPECT_EQ(seeker_->PositionOf(0, 17), 17u);
  EXPECT_EQ(seeker_->PositionOf(1, 8150), 8192u);
  EXPECT_EQ(seeker_->PositionOf(1, 8191), 8192u + 41);
  EXPECT_EQ(seeker_->PositionOf(2, 0), 8192u + 42);
  EXPECT_EQ(seeker_->PositionOf(2, 58), 8192u + 100);
  EXPECT_EQ(seeker_->PositionOf(3, 0), 8192u + 100);
  EXPECT_THROW(seeker_->PositionOf(4, 0), InvalidParameterException);
}

TEST_F(ChildFileSeekerTest, AdvanceAcceptsTheEndIndexAndRefusesBeyond) {
  links_->Chain({20, 21});
  ASSERT_TRUE(seeker_->AttachStream(links_.Get(), StreamEntry{1, 2 * 8192, 20, 2}, TailLocation{}));
  std::uint64_t index = 0, offset = 0;
  EXPECT_TRUE(Advanced(PageCursor{0, 8000}, 200, 1u, 8u));
  EXPECT_TRUE(Advanced(PageCursor{1, 8}, static_cast<std::uint32_t>(-8200), 0u, 0u));
  EXPECT_TRUE(seeker_->Advance(index, offset, PageCursor{2, 0}, 0));
  EXPECT_EQ(index, 1u);
  EXPECT_EQ(offset, 8192u);
  EXPECT_FALSE(seeker_->Advance(index, offset, PageCursor{2, 0}, 1));
  EXPECT_FALSE(seeker_->Advance(index, offset, PageCursor{3, 0}, 0));
}

TEST_F(ChildFileSeekerTest, LocateRefusesNegativeAndPastTheEnd) {
  ASSERT_TRUE(seeker_->AttachStream(links_.Get(), StreamEntry{1, 10, 0, 0}, TailLocation{40, 0, 0, 10}));
  std::uint64_t index = 5, offset = 5;
  EXPECT_FALSE(seeker_->Locate(index, offset, -1));
  EXPECT_EQ(index, 0u);
  EXPECT_EQ(offset, 0u);
  EXPECT_FALSE(seeker_->Locate(index, offset, 11));
  seeker_->LoadPagesUpTo(100);
  EXPECT_EQ(seeker_->pageCount, 1u);
}

class LocateTailTest : public ::testing::Test {
 protected:
  void SetUp() override { directory_.children[3] = Child(3, 100, 65536 - 20000); }
  void Tail(std::uint64_t stream, std::uint64_t offset, std::uint64_t size, std::uint64_t child = 3) {
    directory_.tails[stream] = StreamTailRecord{stream, child, 0, offset, size};
  }
  ::testing::AssertionResult LocatesAs(std::uint64_t stream, TailLocation want) {
    TailLocation out{1, 1, 1, 1};
    if (!ChildFileSeeker::LocateTail(out, directory_, stream)) return ::testing::AssertionFailure() << "refused";
    if (out.firstPage == want.firstPage && out.secondPage == want.secondPage &&
        out.offsetInPage == want.offsetInPage && out.size == want.size) {
      return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "pages " << out.firstPage << ", " << out.secondPage << " offset "
                                         << out.offsetInPage << " size " << out.size;
  }
  Directory directory_;
  TailLocation out_{1, 1, 1, 1};
};

TEST_F(LocateTailTest, StreamWithoutTailGetsAllZero) {
  EXPECT_TRUE(LocatesAs(9, TailLocation{0, 0, 0, 0}));
}

TEST_F(LocateTailTest, TailInsideOnePageHasNoSecondPage) {
  Tail(1, 8192 + 100, 50);
  EXPECT_TRUE(LocatesAs(1, TailLocation{101, 0, 100, 50}));
}

TEST_F(LocateTailTest, TailCrossingAPageEndNamesTheNextChildPage) {
  Tail(1, 8150, 100);
  EXPECT_TRUE(LocatesAs(1, TailLocation{100, 101, 8150, 100}));
}

TEST_F(LocateTailTest, TailPastTheUsedBytesIsCorrupt) {
  Tail(1, 19990, 11);
  EXPECT_THROW(ChildFileSeeker::LocateTail(out_, directory_, 1), FileDataCorruptException);
  Tail(1, 19990, 10);
  EXPECT_TRUE(ChildFileSeeker::LocateTail(out_, directory_, 1));
}

TEST_F(LocateTailTest, TailInTheLastChildPageNeverCrosses) {
  directory_.children[3].freeBytes = 0;
  Tail(1, 7 * 8192 + 8000, 192);
  EXPECT_TRUE(LocatesAs(1, TailLocation{107, 0, 8000, 192}));
  Tail(1, 7 * 8192 + 8000, 193);
  EXPECT_THROW(ChildFileSeeker::LocateTail(out_, directory_, 1), FileDataCorruptException);
}

TEST_F(LocateTailTest, MissingChildOrImpossibleRecordIsCorrupt) {
  Tail(1, 0, 10, 4);
  EXPECT_THROW(ChildFileSeeker::LocateTail(out_, directory_, 1), FileDataCorruptException);
  Tail(1, 65536, 0);
  EXPECT_THROW(ChildFileSeeker::LocateTail(out_, directory_, 1), FileDataCorruptException);
  Tail(1, 0, 8192);
  EXPECT_THROW(ChildFileSeeker::LocateTail(out_, directory_, 1), FileDataCorruptException);
  directory_.children[3].freeBytes = 65537;
  Tail(1, 0, 1);
  EXPECT_THROW(ChildFileSeeker::LocateTail(out_, directory_, 1), FileDataCorruptException);
}

}  // namespace
}  // namespace Tovrel
