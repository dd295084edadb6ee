#include "package/TableSoundness.h"

#include <gtest/gtest.h>

#include <vector>

#include "pagefile/FileDataCorruptException.h"
#include "pagefile/LittleEndian.h"
#include "pagefile/PageGeometry.h"
#include "support/MemoryDataStream.h"

namespace Tovrel {
namespace {

using Ids = std::vector<std::uint64_t>;

// A head chain over given pages, prepared as the loader leaves it.
class HeadPages : public IPagedFileSeeker {
 protected:
  ~HeadPages() override = default;

 public:
  explicit HeadPages(Ids ids) : ids_(std::move(ids)) {
    pageCount = ids_.size();
    pageIds = ids_.data();
  }
  bool Locate(std::uint64_t&, std::uint64_t&, std::int32_t) override { return false; }
  bool Advance(std::uint64_t&, std::uint64_t&, const PageCursor&, std::uint32_t) override { return false; }
  void LoadPagesUpTo(std::uint64_t) override {}

 private:
  Ids ids_;
};

// An allocation table that counts the links read from it.
class CountingAllocator : public PageAllocator {
 protected:
  ~CountingAllocator() override = default;

 public:
  std::uint64_t GetNextPage(std::uint64_t page) override {
    ++linksRead;
    return PageAllocator::GetNextPage(page);
  }
  std::uint64_t linksRead = 0;
};

constexpr std::uint64_t kFree = IPageAllocator::kFreeLink;
constexpr std::uint64_t kEnd = IPageAllocator::kEndLink;

class TableSoundnessTest : public ::testing::Test {
 protected:
  // Loads the allocation table: links[i] is the link of page 10 + i.
  void Table(const Ids& links) {
    std::vector<std::uint8_t> bytes(8 + 8 * links.size());
    LittleEndian::Store64(bytes.data(), links.size());
    for (std::size_t i = 0; i < links.size(); ++i) LittleEndian::Store64(bytes.data() + 8 + 8 * i, links[i]);
    RefPtr<IDataStream> stream(new Testing::MemoryDataStream(bytes));
    allocator_->LoadTable(stream);
  }
  std::uint64_t Stream(std::uint64_t firstPage, std::uint64_t pages, std::uint64_t tail = 0) {
    return streams_.Add(StreamEntry{StreamTable::kNoStream, pages * kPageSize + tail, firstPage, pages});
  }
  // A child file over pages first .. first + 7.
  std::uint64_t ChildFile(std::uint64_t first) {
    std::uint64_t pages[kChildFilePages];
    for (std::uint64_t i = 0; i < kChildFilePages; ++i) pages[i] = first + i;
    return childFiles_.AddChildFile(pages);
  }
  // The next tail of a child file, at `gap` bytes past its used ones.
  void Tail(std::uint64_t stream, std::uint64_t child, std::uint64_t size, std::uint64_t gap = 0) {
    const std::uint64_t offset = kChildFileSize - childFiles_.FindChildFile(child)->freeBytes + gap;
    ASSERT_TRUE(childFiles_.AddTail(StreamTailRecord{stream, child, 0, offset, size}));
  }
  void Assess(const Ids& head = {10}) {
    RefPtr<HeadPages> chain(new HeadPages(head));
    soundness_.Assess(*allocator_, streams_, childFiles_, *chain);
  }
  // Links of a chain of n pages from `first` on, each to the next.
  static Ids Run(std::uint64_t first, std::uint64_t n) {
    Ids links;
    for (std::uint64_t i = 1; i < n; ++i) links.push_back(first + i);
    links.push_back(kEnd);
    return links;
  }
  static Ids Join(std::initializer_list<Ids> parts) {
    Ids all;
    for (const Ids& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
  }

  RefPtr<CountingAllocator> allocator_{new CountingAllocator};
  StreamTable streams_;
  ChildFileTable childFiles_;
  TableSoundness soundness_;
};

TEST_F(TableSoundnessTest, AnUndamagedTableIsSound) {
  // 10 head, 11-13 stream 0, 14-21 child file 0, 22 free, 23-24 stream 1.
  Table(Join({{kEnd}, Run(11, 3), Run(14, 8), {kFree}, Run(23, 2)}));
  Stream(11, 3, 100);
  Stream(23, 2, 5000);
  Stream(0, 0, 300);
  const std::uint64_t child = ChildFile(14);
  Tail(0, child, 100);
  Tail(1, child, 5000);
  Tail(2, child, 300);
  Assess();
  EXPECT_TRUE(soundness_.IsSound());
  EXPECT_TRUE(soundness_.IsStreamSound(0));
  EXPECT_TRUE(soundness_.IsChildFileSound(child));
}

TEST_F(TableSoundnessTest, TwoStreamsReachingOnePageAreBothUnsoundAndTheOthersStaySound) {
  Table(Join({{kEnd}, Run(11, 3), Run(14, 2), Run(16, 1)}));
  Stream(11, 3);
  Stream(12, 2);  // starts inside stream 0's chain
  Stream(16, 1);
  Stream(14, 2);
  Assess();
  EXPECT_EQ(soundness_.GetUnsoundStreams(), (Ids{0, 1}));
  EXPECT_TRUE(soundness_.GetUnsoundChildFiles().empty());
}

TEST_F(TableSoundnessTest, AStreamReachingTheHeadChainIsUnsoundAndTheHeadChainIsNotAnOwner) {
  Table(Join({Run(10, 2), Run(12, 1)}));
  Stream(11, 1);
  Stream(12, 1);
  Assess({10, 11});
  EXPECT_EQ(soundness_.GetUnsoundStreams(), (Ids{0}));
}

TEST_F(TableSoundnessTest, AChainOfAnotherLengthThanItsCountOrBrokenOffIsUnsound) {
  // 11-12 a chain of two; 13-15 a chain of three; 16 links to free 17;
  // 18 links back to itself through 19; 20-21 a sound chain of two.
  Table(Join({{kEnd}, Run(11, 2), Run(13, 3), {17, kFree}, {19, 18}, Run(20, 2)}));
  Stream(11, 3);       // shorter than its count
  Stream(13, 2);       // longer than its count
  Stream(16, 2);       // runs into a free page
  Stream(18, 3);       // runs back into itself
  Stream(40, 1);       // starts past the table
  Stream(5, 1);        // starts on no page at all
  Stream(20, 2);
  Assess();
  EXPECT_EQ(soundness_.GetUnsoundStreams(), (Ids{0, 1, 2, 3, 4, 5}));
}

TEST_F(TableSoundnessTest, AChildFileWhosePagesAreNotItsChainIsUnsoundAndSoAreTheStreamsWithTailsInIt) {
  // Child file 0 over 11-18, whose table chain skips 15 for 19.
  Table(Join({{kEnd}, {12, 13, 14, 19, kEnd, 17, 18, kEnd, 16}, Run(20, 8), Run(28, 1)}));
  const std::uint64_t broken = ChildFile(11);
  const std::uint64_t sound = ChildFile(20);
  Stream(28, 1, 10);
  Stream(0, 0, 20);
  Stream(0, 0, 30);
  Tail(0, broken, 10);
  Tail(1, sound, 20);
  Tail(2, broken, 30);
  Assess();
  EXPECT_EQ(soundness_.GetUnsoundChildFiles(), (Ids{broken}));
  EXPECT_EQ(soundness_.GetUnsoundStreams(), (Ids{0, 2}));
}

TEST_F(TableSoundnessTest, AChildFileSharingAPageWithAStreamIsUnsoundAndSoIsTheStream) {
  Table(Join({{kEnd}, Run(11, 8), Run(19, 1)}));
  const std::uint64_t child = ChildFile(11);
  Stream(19, 1);
  Stream(18, 1);  // the child file's last page
  Stream(0, 0, 50);
  Tail(2, child, 50);
  Assess();
  EXPECT_EQ(soundness_.GetUnsoundChildFiles(), (Ids{child}));
  EXPECT_EQ(soundness_.GetUnsoundStreams(), (Ids{1, 2}));
}

TEST_F(TableSoundnessTest, TailsWithAGapEndingShortOrOfAStreamThatIsNotThereMakeTheirChildFileUnsound) {
  Table(Join({{kEnd}, Run(11, 8), Run(19, 8), Run(27, 8), Run(35, 8)}));
  const std::uint64_t gap = ChildFile(11);
  const std::uint64_t orphan = ChildFile(19);
  const std::uint64_t empty = ChildFile(27);
  const std::uint64_t sound = ChildFile(35);
  for (int i = 0; i < 4; ++i) Stream(0, 0, 100);
  Tail(0, gap, 100);
  Tail(1, gap, 100, 8);  // eight bytes after the first tail
  Tail(2, orphan, 100);
  Tail(9, orphan, 100);  // stream 9 is not in the stream table
  Tail(3, sound, 100);
  Assess();
  EXPECT_EQ(soundness_.GetUnsoundChildFiles(), (Ids{gap, orphan}));
  EXPECT_EQ(soundness_.GetUnsoundStreams(), (Ids{0, 1, 2}));
  EXPECT_TRUE(soundness_.IsChildFileSound(empty));
}

TEST_F(TableSoundnessTest, AHeadChainPageThatTheTableMarksFreeOrLacksFailsTheAssessment) {
  Table(Join({{11, kFree}, Run(12, 1)}));
  EXPECT_THROW(Assess({10, 11}), FileDataCorruptException);
  EXPECT_TRUE(soundness_.IsSound());
  EXPECT_THROW(Assess({10, 13}), FileDataCorruptException);
}

TEST_F(TableSoundnessTest, EveryPageIsFollowedAboutOnceHoweverManyStreamsShareAChain) {
  // One chain of 60,000 pages, and 3,000 streams that all claim it whole:
  // following each of them would read 180 million links.
  const std::uint64_t pages = 60000;
  Table(Join({{kEnd}, Run(11, pages)}));
  const std::uint64_t streams = 3000;
  for (std::uint64_t i = 0; i < streams; ++i) Stream(11, pages);
  allocator_->linksRead = 0;
  Assess();
  EXPECT_LE(allocator_->linksRead, pages + streams);
  EXPECT_EQ(soundness_.GetUnsoundStreams().size(), streams);
}

TEST_F(TableSoundnessTest, ClearMakesEverythingSoundAgain) {
  Table(Join({{kEnd}, Run(11, 1)}));
  Stream(11, 1);
  Stream(11, 1);
  Assess();
  EXPECT_FALSE(soundness_.IsSound());
  soundness_.Clear();
  EXPECT_TRUE(soundness_.IsSound());
  EXPECT_TRUE(soundness_.IsStreamSound(0));
}

}  // namespace
}  // namespace Tovrel
