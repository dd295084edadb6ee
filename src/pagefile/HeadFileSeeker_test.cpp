#include "pagefile/HeadFileSeeker.h"

#include <gtest/gtest.h>

#include "host/RefPtr.h"
#include "pagefile/FileDataCorruptException.h"
#include "pagefile/FileIOException.h"
#include "pagefile/InvalidParameterException.h"
#include "pagefile/LittleEndian.h"
#include "pagefile/PageRef.h"
#include "platform/FileFaults.h"
#include "support/HeadChainFile.h"
#include "support/TempDir.h"

namespace Tovrel {
namespace {

using Testing::HeadChainFile;
using Testing::TempDir;

// Four-page chain 10 -> 11 -> 12 -> 13 of 8160 + 2 * 8176 + 100 bytes.
constexpr std::uint64_t kFourPageSize = 8160 + 2 * 8176 + 100;

class HeadFileSeekerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = dir_.File("head.bin");
    FilePageCache cache(path_.c_str(), 4);
    HeadChainFile::Write(cache, {10, 11, 12, 13}, HeadChainFile::Payload(kFourPageSize, 3));
  }
  void TearDown() override { FileFaults::Reset(); }

  // Opens the chain and loads every page; returns the exception type seen.
  void OpenAndLoadAll(FilePageCache& cache) {
    RefPtr<HeadFileSeeker> seeker(new HeadFileSeeker(&cache));
    seeker->OpenForRead();
    seeker->LoadPagesUpTo(seeker->pageCount - 1);
  }

  void ExpectNothingPinned(const FilePageCache& cache) {
    for (std::uint64_t id : cache.GetRecencyOrder()) EXPECT_EQ(cache.GetPinCount(id), 0) << id;
  }

  TempDir dir_;
  std::wstring path_;
};

TEST_F(HeadFileSeekerTest, OpeningReadsOnlyTheFirstPage) {
  FilePageCache cache(path_.c_str(), 8);
  RefPtr<HeadFileSeeker> seeker(new HeadFileSeeker(&cache));
  FileFaults::StartCounting();
  ASSERT_TRUE(seeker->OpenForRead());
  EXPECT_EQ(FileFaults::Calls(FileCall::kRead), 1u);
  EXPECT_EQ(seeker->pageCount, 4u);
  EXPECT_EQ(seeker->totalSize, kFourPageSize);
  EXPECT_EQ(seeker->pageIds[0], 10u);
  EXPECT_EQ(seeker->pageIds[1], 0u);
  EXPECT_EQ(seeker->GetLastPreparedIndex(), 0u);
  // The chain's pages follow each other in the file: the first link to
  // the next page brings that page and the one after in one call; only
  // the links asked for are followed.
  seeker->LoadPagesUpTo(2);
  EXPECT_EQ(FileFaults::Calls(FileCall::kRead), 2u);
  EXPECT_EQ(seeker->pageIds[2], 12u);
  EXPECT_EQ(seeker->pageIds[3], 0u);
  EXPECT_EQ(seeker->GetLastPreparedIndex(), 2u);
  EXPECT_FALSE(cache.IsCached(13));
  seeker->LoadPagesUpTo(3);
  EXPECT_EQ(FileFaults::Calls(FileCall::kRead), 3u);
  EXPECT_EQ(seeker->pageRanges[3].end, 116u);
  ExpectNothingPinned(cache);
}

TEST_F(HeadFileSeekerTest, AChainOnConsecutivePagesIsReadInFewCallsAndAScatteredOneInOneCallAPage) {
  const std::uint64_t pages = 200;
  const std::uint64_t size = 8160 + (pages - 2) * 8176 + 50;
  for (const bool scattered : {false, true}) {
    std::vector<std::uint64_t> ids{10};
    // Scattered: every second page from the end of the file down, so that
    // no link leads to the page after its own.
    for (std::uint64_t k = 1; k < pages; ++k) ids.push_back(scattered ? 10 + 2 * (pages - k) : 10 + k);
    {
      FilePageCache cache(path_.c_str(), 64);
      HeadChainFile::Write(cache, ids, HeadChainFile::Payload(size, 5));
    }
    FilePageCache cache(path_.c_str(), 64);
    RefPtr<HeadFileSeeker> seeker(new HeadFileSeeker(&cache));
    FileFaults::StartCounting();
    ASSERT_TRUE(seeker->OpenForRead());
    seeker->LoadPagesUpTo(pages - 1);
    for (std::uint64_t k = 0; k < pages; ++k) ASSERT_EQ(seeker->pageIds[k], ids[k]) << k;
    if (scattered) {
      EXPECT_EQ(FileFaults::Calls(FileCall::kRead), pages);
    } else {
      EXPECT_LE(FileFaults::Calls(FileCall::kRead), pages / 8);
    }
    ExpectNothingPinned(cache);
    FileFaults::Reset();
  }
}

TEST_F(HeadFileSeekerTest, AFirstPageCountOfZeroIsCorruption) {
  HeadChainFile::Patch(path_, 10, 0, 0);
  FilePageCache cache(path_.c_str(), 4);
  RefPtr<HeadFileSeeker> seeker(new HeadFileSeeker(&cache));
  EXPECT_THROW(seeker->OpenForRead(), FileDataCorruptException);
  ExpectNothingPinned(cache);
}

TEST_F(HeadFileSeekerTest, ASizeAboveCountPagesIsCorruption) {
  HeadChainFile::Patch(path_, 10, 8, 4 * 8192 + 1);
  FilePageCache cache(path_.c_str(), 4);
  RefPtr<HeadFileSeeker> seeker(new HeadFileSeeker(&cache));
  EXPECT_THROW(seeker->OpenForRead(), FileDataCorruptException);
}

TEST_F(HeadFileSeekerTest, ACountAboveThePageLimitIsCorruption) {
  for (std::uint64_t count : {std::uint64_t{0xFFFF7}, ~std::uint64_t{0}, std::uint64_t{1} << 63}) {
    HeadChainFile::Patch(path_, 10, 0, count);
    FilePageCache cache(path_.c_str(), 4);
    RefPtr<HeadFileSeeker> seeker(new HeadFileSeeker(&cache));
    EXPECT_THROW(seeker->OpenForRead(), FileDataCorruptException) << count;
  }
}

TEST_F(HeadFileSeekerTest, AShortFirstPageThatIsNotLastFailsValidation) {
  HeadChainFile::Patch(path_, 10, 24, 8191);
  FilePageCache cache(path_.c_str(), 4);
  RefPtr<HeadFileSeeker> seeker(new HeadFileSeeker(&cache));
  EXPECT_THROW(seeker->OpenForRead(), FileDataCorruptException);
}

TEST_F(HeadFileSeekerTest, AShortMiddlePageFailsValidation) {
  HeadChainFile::Patch(path_, 12, 8, 8000);
  FilePageCache cache(path_.c_str(), 4);
  RefPtr<HeadFileSeeker> seeker(new HeadFileSeeker(&cache));
  ASSERT_TRUE(seeker->OpenForRead());
  seeker->LoadPagesUpTo(1);
  EXPECT_THROW(seeker->LoadPagesUpTo(2), FileDataCorruptException);
  EXPECT_EQ(seeker->GetLastPreparedIndex(), 1u);
  ExpectNothingPinned(cache);
}

TEST_F(HeadFileSeekerTest, AnEmptyOrOversizedRangeFailsValidation) {
  for (std::uint64_t end : {std::uint64_t{16}, std::uint64_t{8193}}) {
    HeadChainFile::Patch(path_, 13, 8, end);
    FilePageCache cache(path_.c_str(), 4);
    EXPECT_THROW(OpenAndLoadAll(cache), FileDataCorruptException) << end;
  }
}

TEST_F(HeadFileSeekerTest, ALinkBackToAnEarlierPageIsACycle) {
  HeadChainFile::Patch(path_, 12, 0, 11);  // page index 2 points back at index 1
  FilePageCache cache(path_.c_str(), 4);
  RefPtr<HeadFileSeeker> seeker(new HeadFileSeeker(&cache));
  ASSERT_TRUE(seeker->OpenForRead());
  seeker->LoadPagesUpTo(2);
  EXPECT_THROW(seeker->LoadPagesUpTo(3), FileDataCorruptException);
  EXPECT_EQ(seeker->GetLastPreparedIndex(), 2u);
  ExpectNothingPinned(cache);
}

TEST_F(HeadFileSeekerTest, ALinkToItselfIsACycle) {
  HeadChainFile::Patch(path_, 11, 0, 11);
  FilePageCache cache(path_.c_str(), 4);
  EXPECT_THROW(OpenAndLoadAll(cache), FileDataCorruptException);
}

TEST_F(HeadFileSeekerTest, AMissingOrInvalidNextPageIsCorruption) {
  for (std::uint64_t next : {std::uint64_t{0}, std::uint64_t{9}, std::uint64_t{500}, std::uint64_t{0x100000}}) {
    HeadChainFile::Patch(path_, 11, 0, next);
    FilePageCache cache(path_.c_str(), 4);
    EXPECT_THROW(OpenAndLoadAll(cache), FileDataCorruptException) << next;
    ExpectNothingPinned(cache);
  }
}

TEST_F(HeadFileSeekerTest, EveryCachedPagePinnedIsCorruption) {
  FilePageCache cache(path_.c_str(), 1);
  PageRef held(&cache);
  ASSERT_NE(held.AcquireForRead(13), nullptr);
  RefPtr<HeadFileSeeker> seeker(new HeadFileSeeker(&cache));
  EXPECT_THROW(seeker->OpenForRead(), FileDataCorruptException);
  held.Release();
  ASSERT_TRUE(seeker->OpenForRead());
  held.AcquireForRead(13);
  EXPECT_THROW(seeker->LoadPagesUpTo(1), FileDataCorruptException);
  EXPECT_EQ(cache.GetPinCount(13), 1);
}

TEST_F(HeadFileSeekerTest, AnEmptyFileCannotBeRead) {
  const std::wstring empty = dir_.File("empty.bin");
  FilePageCache cache(empty.c_str(), 4);
  RefPtr<HeadFileSeeker> seeker(new HeadFileSeeker(&cache));
  EXPECT_THROW(seeker->OpenForRead(), FileIOException);
  EXPECT_EQ(cache.GetCachedPageCount(), 0u);
}

TEST_F(HeadFileSeekerTest, ATruncatedChainFailsWhenTheMissingPageIsReached) {
  auto bytes = TempDir::ReadAll(path_);
  bytes.resize(2 * kPageSize + 10);
  TempDir::WriteAll(path_, bytes);
  FilePageCache cache(path_.c_str(), 4);
  RefPtr<HeadFileSeeker> seeker(new HeadFileSeeker(&cache));
  ASSERT_TRUE(seeker->OpenForRead());
  seeker->LoadPagesUpTo(1);
  EXPECT_THROW(seeker->LoadPagesUpTo(2), FileIOException);  // page 12 is cut short
  bytes.resize(2 * kPageSize);
  TempDir::WriteAll(path_, bytes);
  FilePageCache exact(path_.c_str(), 4);
  EXPECT_THROW(OpenAndLoadAll(exact), FileIOException);  // page 12 starts at the end
  bytes.resize(kPageSize);
  TempDir::WriteAll(path_, bytes);
  FilePageCache shorter(path_.c_str(), 4);
  RefPtr<HeadFileSeeker> again(new HeadFileSeeker(&shorter));
  ASSERT_TRUE(again->OpenForRead());
  EXPECT_THROW(again->LoadPagesUpTo(1), FileIOException);  // page 11 starts at the end
}

TEST_F(HeadFileSeekerTest, AReadFailurePassesThroughWithItsErrno) {
  FilePageCache cache(path_.c_str(), 4);
  RefPtr<HeadFileSeeker> seeker(new HeadFileSeeker(&cache));
  ASSERT_TRUE(seeker->OpenForRead());
  // Every read fails: the read ahead of the chain's next pages, and the
  // page's own read after it.
  FileFaults::FailNth(FileCall::kRead, 1, 5, true);
  try {
    seeker->LoadPagesUpTo(3);
    FAIL() << "no exception";
  } catch (const FileIOException& e) {
    EXPECT_EQ(e.errorCode, 5);
  }
  ExpectNothingPinned(cache);
  EXPECT_EQ(seeker->pageIds[1], 0u);
  FileFaults::Reset();
  seeker->LoadPagesUpTo(1);
  EXPECT_EQ(seeker->pageIds[1], 11u);
  seeker->LoadPagesUpTo(3);
  EXPECT_EQ(seeker->pageIds[3], 13u);
}

TEST_F(HeadFileSeekerTest, ASizeBeyondAShortLastPageIsNotLocatable) {
  // One page whose payload is 16 bytes, but a size of a whole page: the
  // end of the claimed data lies on a page that does not exist.
  HeadChainFile::Patch(path_, 10, 0, 1);
  HeadChainFile::Patch(path_, 10, 8, 8192);
  HeadChainFile::Patch(path_, 10, 16, 0);
  HeadChainFile::Patch(path_, 10, 24, 48);
  FilePageCache cache(path_.c_str(), 4);
  RefPtr<HeadFileSeeker> seeker(new HeadFileSeeker(&cache));
  ASSERT_TRUE(seeker->OpenForRead());
  std::uint64_t index = 0, offset = 0;
  EXPECT_FALSE(seeker->Locate(index, offset, 8192));
  EXPECT_FALSE(seeker->Locate(index, offset, 17));
  EXPECT_TRUE(seeker->Locate(index, offset, 16));
  EXPECT_EQ(offset, 48u);
}

TEST_F(HeadFileSeekerTest, ForeignFilesGiveTheLibrarysExceptionsAndLeaveNothingPinned) {
  const std::wstring foreign = dir_.File("foreign.bin");
  for (std::uint32_t seed = 1; seed <= 200; ++seed) {
    SCOPED_TRACE(seed);
    auto bytes = HeadChainFile::Payload(kPageSize * (1 + seed % 5) + seed % 3, seed);
    if (seed % 2 == 0) {
      // Plausible first-page numbers make the walk go further.
      LittleEndian::Store64(bytes.data(), 1 + seed % 6);
      LittleEndian::Store64(bytes.data() + 8, seed * 1000 % 40000);
      LittleEndian::Store64(bytes.data() + 16, 10 + seed % 7);
      LittleEndian::Store64(bytes.data() + 24, 8192);
    }
    TempDir::WriteAll(foreign, bytes);
    FilePageCache cache(foreign.c_str(), 2);
    try {
      OpenAndLoadAll(cache);
    } catch (const FileDataCorruptException&) {
    } catch (const FileIOException&) {
    }
    ExpectNothingPinned(cache);
    cache.CheckInvariants();
  }
}

TEST_F(HeadFileSeekerTest, LoadingPastTheLastPageIsRefused) {
  FilePageCache cache(path_.c_str(), 4);
  RefPtr<HeadFileSeeker> seeker(new HeadFileSeeker(&cache));
  ASSERT_TRUE(seeker->OpenForRead());
  EXPECT_THROW(seeker->LoadPagesUpTo(4), InvalidParameterException);
}

TEST_F(HeadFileSeekerTest, ReopeningStartsAFreshTable) {
  FilePageCache cache(path_.c_str(), 4);
  RefPtr<HeadFileSeeker> seeker(new HeadFileSeeker(&cache));
  ASSERT_TRUE(seeker->OpenForRead());
  seeker->LoadPagesUpTo(3);
  ASSERT_TRUE(seeker->OpenForRead());
  EXPECT_EQ(seeker->GetLastPreparedIndex(), 0u);
  EXPECT_EQ(seeker->pageIds[3], 0u);
  seeker->LoadPagesUpTo(3);  // no false cycle from the earlier walk
  EXPECT_EQ(seeker->pageIds[3], 13u);
}

}  // namespace
}  // namespace Tovrel
