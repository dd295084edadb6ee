#include "pagefile/FilePageCache.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <vector>

#include "pagefile/FileIOException.h"
#include "pagefile/InvalidParameterException.h"
#include "pagefile/PageRef.h"
#include "pagefile/RollbackJournal.h"
#include "platform/FileFaults.h"
#include "support/InstalledFileSystem.h"
#include "support/TempDir.h"

namespace Tovrel {
namespace {

using Testing::TempDir;

std::vector<std::uint8_t> Pattern(std::size_t pages, std::uint8_t seed) {
  std::vector<std::uint8_t> bytes(pages * kPageSize);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(seed + i * 7 + i / 8192);
  return bytes;
}

class FilePageCacheTest : public ::testing::Test {
 protected:
  void TearDown() override { FileFaults::Reset(); }

  std::wstring FileWith(const std::vector<std::uint8_t>& bytes) {
    const std::wstring path = dir_.File("pages.bin");
    TempDir::WriteAll(path, bytes);
    return path;
  }

  TempDir dir_;
};

TEST_F(FilePageCacheTest, OpeningAMissingPathCreatesAnEmptyFile) {
  const std::wstring path = dir_.File("new.bin");
  FilePageCache cache(path.c_str(), 4);
  EXPECT_TRUE(cache.IsOpen());
  EXPECT_EQ(cache.GetFileLength(), 0u);
  EXPECT_EQ(TempDir::SizeOf(path), 0u);
}

TEST_F(FilePageCacheTest, CapacityZeroIsTakenAsOne) {
  const std::wstring path = FileWith(Pattern(2, 1));
  FilePageCache cache(path.c_str(), 0);
  EXPECT_EQ(cache.GetCapacity(), 1u);
}

TEST_F(FilePageCacheTest, ReadsPagesAtTheirOffsets) {
  const auto bytes = Pattern(3, 5);
  const std::wstring path = FileWith(bytes);
  FilePageCache cache(path.c_str(), 8);
  for (std::uint64_t id = 10; id < 13; ++id) {
    PageRef page(&cache);
    const std::uint8_t* data = page.AcquireForRead(id);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(std::memcmp(data, bytes.data() + (id - 10) * kPageSize, kPageSize), 0);
  }
}

TEST_F(FilePageCacheTest, PinnedPageInAFullCacheMakesAnotherPageUnavailable) {
  const auto bytes = Pattern(2, 9);
  const std::wstring path = FileWith(bytes);
  FilePageCache cache(path.c_str(), 1);
  PageRef pinned(&cache);
  std::uint8_t* data = pinned.AcquireForWrite(10);
  ASSERT_NE(data, nullptr);
  data[0] ^= 0xFF;
  FileFaults::StartCounting();
  EXPECT_EQ(cache.GetPage(11, true), nullptr);
  EXPECT_EQ(FileFaults::Calls(FileCall::kAny), 0u);
  EXPECT_TRUE(cache.IsCached(10));
  EXPECT_EQ(cache.GetPinCount(10), 1);
  EXPECT_EQ(TempDir::ReadAll(path), bytes);
}

TEST_F(FilePageCacheTest, IdsOutsideThePageRangeGiveNullWithoutTouchingTheFile) {
  const std::wstring path = FileWith(Pattern(2, 3));
  FilePageCache cache(path.c_str(), 4);
  FileFaults::StartCounting();
  EXPECT_EQ(cache.GetPage(9, true), nullptr);
  EXPECT_EQ(cache.GetPage(0x100000, true), nullptr);
  EXPECT_EQ(cache.GetPage(0, false), nullptr);
  EXPECT_EQ(FileFaults::Calls(FileCall::kAny), 0u);
  EXPECT_EQ(cache.GetCachedPageCount(), 0u);
}

TEST_F(FilePageCacheTest, WritingPageTwelveOfAnEmptyFileExtendsItToThreePages) {
  const std::wstring path = dir_.File("empty.bin");
  TempDir::WriteAll(path, {});
  {
    FilePageCache cache(path.c_str(), 4);
    PageRef page(&cache);
    std::uint8_t* data = page.AcquireForWrite(12);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(cache.GetFileLength(), 24576u);
    EXPECT_EQ(TempDir::SizeOf(path), 24576u);  // on disk already, not waiting in a buffer
    EXPECT_EQ(data[0], 0);
    EXPECT_EQ(data[kPageSize - 1], 0);
    data[1] = 0xAB;
  }
  const auto bytes = TempDir::ReadAll(path);
  ASSERT_EQ(bytes.size(), 24576u);
  EXPECT_EQ(bytes[2 * kPageSize + 1], 0xAB);
  EXPECT_EQ(bytes[0], 0);
}

TEST_F(FilePageCacheTest, ReadingAPageThatStartsAtTheEndThrowsButOnePastItGivesNull) {
  const std::wstring path = FileWith(Pattern(1, 2));
  FilePageCache cache(path.c_str(), 4);
  EXPECT_THROW(cache.GetPage(11, true), FileIOException);
  EXPECT_EQ(cache.GetPage(12, true), nullptr);
  EXPECT_EQ(cache.GetCachedPageCount(), 0u);
  EXPECT_NE(cache.GetPage(10, true), nullptr);
}

TEST_F(FilePageCacheTest, APageOnlyReadIsDroppedOnEvictionWithoutAWrite) {
  const auto bytes = Pattern(3, 4);
  const std::wstring path = FileWith(bytes);
  FilePageCache cache(path.c_str(), 1);
  {
    PageRef page(&cache);
    std::uint8_t* data = page.AcquireForRead(10);
    ASSERT_NE(data, nullptr);
    // A stale image must never reach the file: change it behind the cache's back.
    data[100] ^= 0x5A;
  }
  FileFaults::StartCounting();
  ASSERT_NE(cache.GetPage(11, true), nullptr);
  cache.UnpinPage(11);
  EXPECT_FALSE(cache.IsCached(10));
  EXPECT_EQ(FileFaults::Calls(FileCall::kWrite), 0u);
  cache.Close();
  EXPECT_EQ(TempDir::ReadAll(path), bytes);
}

// Reads pages 10 and 11 of a three-page file into a cache and changes the
// image of page 10 behind the cache's back, as a stale image differs from
// a newer save of another process; page 11 stays pinned.
class PagesOnlyReadTest : public FilePageCacheTest {
 protected:
  void SetUp() override {
    path_ = FileWith(bytes_);
    cache_.reset(new FilePageCache(path_.c_str(), 4));
    {
      PageRef page(cache_.get());
      std::uint8_t* data = page.AcquireForRead(10);
      ASSERT_NE(data, nullptr);
      data[100] ^= 0x5A;
    }
    pinned_.reset(new PageRef(cache_.get()));
    ASSERT_NE(pinned_->AcquireForRead(11), nullptr);
    FileFaults::StartCounting();
  }
  // Nothing was written, and the file is as it was.
  void ExpectNothingWritten() {
    EXPECT_EQ(FileFaults::Calls(FileCall::kWrite), 0u);
    EXPECT_EQ(FileFaults::Calls(FileCall::kTruncate), 0u);
    FileFaults::Reset();
    pinned_->Release();
    cache_->Close();
    EXPECT_EQ(TempDir::ReadAll(path_), bytes_);
  }

  const std::vector<std::uint8_t> bytes_ = Pattern(3, 4);
  std::wstring path_;
  std::unique_ptr<FilePageCache> cache_;
  std::unique_ptr<PageRef> pinned_;  // page 11, held
};

TEST_F(PagesOnlyReadTest, AreNotWrittenAtClose) {
  cache_->Close();
  ExpectNothingWritten();
}

TEST_F(PagesOnlyReadTest, AreNotWrittenAtCommit) {
  cache_->Commit();
  EXPECT_TRUE(cache_->IsCached(10));
  ExpectNothingWritten();
}

TEST_F(PagesOnlyReadTest, AreNotWrittenAtDiscardAll) {
  cache_->DiscardAll();
  EXPECT_FALSE(cache_->IsCached(10));
  ExpectNothingWritten();
}

TEST_F(PagesOnlyReadTest, AreNotWrittenByACommitThatWritesAnotherPage) {
  {
    PageRef page(cache_.get());
    page.AcquireForWrite(12)[7] = 0x42;
  }
  cache_->Commit();
  FileFaults::Reset();
  // The file has page 12's change and page 10 as it was.
  EXPECT_EQ(TempDir::ReadAll(path_)[100], bytes_[100]);
  pinned_->Release();
  cache_->Close();
  std::vector<std::uint8_t> expected = bytes_;
  expected[2 * kPageSize + 7] = 0x42;
  EXPECT_EQ(TempDir::ReadAll(path_), expected);
}

TEST_F(FilePageCacheTest, APageObtainedForWritingIsWrittenBackOnEviction) {
  // Page 11 was free in the saved state: its old image needs no keeping,
  // and nothing makes its write wait.
  auto bytes = Pattern(3, 4);
  const std::wstring path = FileWith(bytes);
  FilePageCache cache(path.c_str(), 1);
  cache.SetSavedFreePages({false, true, false});
  {
    PageRef page(&cache);
    page.AcquireForWrite(11)[7] = 0x42;
  }
  FileFaults::StartCounting();
  {
    PageRef page(&cache);
    ASSERT_NE(page.AcquireForRead(12), nullptr);
  }
  EXPECT_FALSE(cache.IsCached(11));
  EXPECT_EQ(FileFaults::Calls(FileCall::kWrite), 2u);  // the journal's header, then the page
  FileFaults::Reset();
  // The file's stream hands the page to the system at its next flush.
  ASSERT_NE(cache.GetPage(10, true), nullptr);
  cache.UnpinPage(10);
  cache.Close();
  bytes[kPageSize + 7] = 0x42;
  EXPECT_EQ(TempDir::ReadAll(path), bytes);
}

TEST_F(FilePageCacheTest, AnEvictedSavedPageWaitsForItsJournalRecordToBeSynced) {
  auto bytes = Pattern(3, 4);
  const std::wstring path = FileWith(bytes);
  FilePageCache cache(path.c_str(), 1);
  {
    PageRef page(&cache);
    page.AcquireForWrite(11)[7] = 0x42;
  }
  {
    PageRef page(&cache);
    ASSERT_NE(page.AcquireForRead(12), nullptr);
  }
  EXPECT_FALSE(cache.IsCached(11));
  EXPECT_EQ(TempDir::ReadAll(path), bytes);  // waits for the journal
  EXPECT_TRUE(cache.IsJournalActive());
  EXPECT_EQ(cache.GetPage(11, true)[7], 0x42);  // a miss takes it back, changes and all
  cache.UnpinPage(11);
  cache.Commit();
  bytes[kPageSize + 7] = 0x42;
  EXPECT_EQ(TempDir::ReadAll(path), bytes);
  EXPECT_FALSE(cache.IsJournalActive());
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::path(RollbackJournal::PathFor(path))));
}

TEST_F(FilePageCacheTest, AReadPageLaterObtainedForWritingIsWrittenBack) {
  auto bytes = Pattern(2, 8);
  const std::wstring path = FileWith(bytes);
  FilePageCache cache(path.c_str(), 4);
  ASSERT_NE(cache.GetPage(10, true), nullptr);
  cache.UnpinPage(10);
  cache.GetPage(10, false)[3] = 0x99;
  cache.UnpinPage(10);
  cache.Close();
  bytes[3] = 0x99;
  EXPECT_EQ(TempDir::ReadAll(path), bytes);
}

TEST_F(FilePageCacheTest, EvictsTheLeastRecentlyUsedUnpinnedPage) {
  const std::wstring path = FileWith(Pattern(6, 1));
  FilePageCache cache(path.c_str(), 3);
  for (std::uint64_t id : {10, 11, 12}) {
    ASSERT_NE(cache.GetPage(id, true), nullptr);
    cache.UnpinPage(id);
  }
  ASSERT_NE(cache.GetPage(10, true), nullptr);  // 10 becomes the most recent, stays pinned
  EXPECT_EQ(cache.GetRecencyOrder(), (std::vector<std::uint64_t>{11, 12, 10}));
  ASSERT_NE(cache.GetPage(13, true), nullptr);
  cache.UnpinPage(13);
  EXPECT_EQ(cache.GetRecencyOrder(), (std::vector<std::uint64_t>{12, 10, 13}));
  // The pinned page 10 is skipped: 12, then 13, go before it.
  ASSERT_NE(cache.GetPage(14, true), nullptr);
  cache.UnpinPage(14);
  ASSERT_NE(cache.GetPage(15, true), nullptr);
  cache.UnpinPage(15);
  EXPECT_EQ(cache.GetRecencyOrder(), (std::vector<std::uint64_t>{10, 14, 15}));
  cache.CheckInvariants();
}

TEST_F(FilePageCacheTest, EveryPagePinnedMakesAMissReturnNull) {
  const std::wstring path = FileWith(Pattern(5, 1));
  FilePageCache cache(path.c_str(), 3);
  for (std::uint64_t id : {10, 11, 12}) ASSERT_NE(cache.GetPage(id, false), nullptr);
  FileFaults::StartCounting();
  EXPECT_EQ(cache.GetPage(13, true), nullptr);
  EXPECT_EQ(cache.GetPage(14, false), nullptr);
  EXPECT_EQ(FileFaults::Calls(FileCall::kAny), 0u);
  EXPECT_EQ(cache.GetFileLength(), 5 * kPageSize);
  EXPECT_NE(cache.GetPage(11, true), nullptr);  // a hit still works
  EXPECT_EQ(cache.GetPinCount(11), 2);
}

TEST_F(FilePageCacheTest, CloseResetsTheCapacityAndOpenSetsItAgain) {
  const std::wstring path = FileWith(Pattern(2, 1));
  FilePageCache cache(path.c_str(), 16);
  EXPECT_EQ(cache.GetCapacity(), 16u);
  cache.Close();
  EXPECT_FALSE(cache.IsOpen());
  EXPECT_EQ(cache.GetCapacity(), 1u);
  EXPECT_EQ(cache.GetFileLength(), 0u);
  cache.Open(path.c_str(), 7);
  EXPECT_EQ(cache.GetCapacity(), 7u);
  EXPECT_EQ(cache.GetFileLength(), 2 * kPageSize);
}

TEST_F(FilePageCacheTest, CloseWritesBackAndFreesPinnedPagesToo) {
  auto bytes = Pattern(2, 6);
  const std::wstring path = FileWith(bytes);
  FilePageCache cache(path.c_str(), 4);
  PageRef held(&cache);
  held.AcquireForWrite(11)[0] = 0x77;
  cache.Close();
  EXPECT_EQ(cache.GetCachedPageCount(), 0u);
  held.Release();  // finds nothing to unpin
  EXPECT_EQ(held.Data(), nullptr);
  bytes[kPageSize] = 0x77;
  EXPECT_EQ(TempDir::ReadAll(path), bytes);
}

TEST_F(FilePageCacheTest, DiscardAllDropsChangesAndKeepsTheFileOpen) {
  const auto bytes = Pattern(2, 6);
  const std::wstring path = FileWith(bytes);
  FilePageCache cache(path.c_str(), 4);
  cache.GetPage(10, false)[0] ^= 1;
  cache.UnpinPage(10);
  cache.DiscardAll();
  EXPECT_EQ(cache.GetCachedPageCount(), 0u);
  EXPECT_TRUE(cache.IsOpen());
  EXPECT_EQ(cache.GetCapacity(), 4u);
  EXPECT_EQ(cache.GetFileLength(), 2 * kPageSize);
  EXPECT_EQ(cache.GetPage(10, true)[0], bytes[0]);
  cache.UnpinPage(10);
  cache.Close();
  EXPECT_EQ(TempDir::ReadAll(path), bytes);
}

TEST_F(FilePageCacheTest, EnsureFileCoversPageGrowsTheFileWithZeros) {
  const std::wstring path = FileWith(Pattern(1, 6));
  FilePageCache cache(path.c_str(), 4);
  cache.EnsureFileCoversPage(13);
  EXPECT_EQ(cache.GetFileLength(), 4 * kPageSize);
  cache.EnsureFileCoversPage(11);
  EXPECT_EQ(cache.GetFileLength(), 4 * kPageSize);
  cache.Close();
  const auto bytes = TempDir::ReadAll(path);
  ASSERT_EQ(bytes.size(), 4 * kPageSize);
  for (std::size_t i = kPageSize; i < bytes.size(); ++i) ASSERT_EQ(bytes[i], 0) << i;
}

TEST_F(FilePageCacheTest, PagesItAppendedAreKnownAsZerosUntilWrittenBack) {
  const std::wstring path = FileWith(Pattern(1, 6));
  FilePageCache cache(path.c_str(), 2);
  cache.EnsureFileCoversPage(15);
  FileFaults::StartCounting();
  const std::uint8_t* page = cache.GetPage(12, true);
  ASSERT_NE(page, nullptr);
  EXPECT_TRUE(std::all_of(page, page + kPageSize, [](std::uint8_t b) { return b == 0; }));
  cache.UnpinPage(12);
  EXPECT_EQ(FileFaults::Calls(FileCall::kRead), 0u);
  cache.GetPage(13, false)[0] = 0xAB;
  cache.UnpinPage(13);
  for (std::uint64_t id : {14, 15}) {
    cache.GetPage(id, true);
    cache.UnpinPage(id);
  }
  EXPECT_FALSE(cache.IsCached(13));
  EXPECT_EQ(FileFaults::Calls(FileCall::kRead), 0u);
  EXPECT_EQ(cache.GetPage(13, true)[0], 0xAB);
  cache.UnpinPage(13);
  EXPECT_EQ(FileFaults::Calls(FileCall::kRead), 1u);
  FileFaults::Reset();
}

TEST_F(FilePageCacheTest, AClosedCacheThrowsWithCodeZero) {
  const std::wstring path = FileWith(Pattern(1, 6));
  FilePageCache cache(path.c_str(), 4);
  cache.Close();
  try {
    cache.GetPage(10, true);
    FAIL() << "no exception";
  } catch (const FileIOException& e) {
    EXPECT_EQ(e.errorCode, 0);
  }
}

TEST_F(FilePageCacheTest, ATruncatedPageThrowsOnRead) {
  auto bytes = Pattern(1, 1);
  bytes.resize(kPageSize + 100, 3);
  const std::wstring path = FileWith(bytes);
  FilePageCache cache(path.c_str(), 4);
  EXPECT_THROW(cache.GetPage(11, true), FileIOException);
  EXPECT_EQ(cache.GetCachedPageCount(), 0u);
  EXPECT_NE(cache.GetPage(10, true), nullptr);
}

TEST_F(FilePageCacheTest, ManyPagesRoundTripThroughASmallCache) {
  const std::wstring path = dir_.File("many.bin");
  const auto bytes = Pattern(200, 11);
  {
    FilePageCache cache(path.c_str(), 7);
    for (std::uint64_t i = 0; i < 200; ++i) {
      PageRef page(&cache);
      std::memcpy(page.AcquireForWrite(10 + i), bytes.data() + i * kPageSize, kPageSize);
    }
    cache.CheckInvariants();
  }
  EXPECT_EQ(TempDir::ReadAll(path), bytes);
  FilePageCache cache(path.c_str(), 5);
  for (std::uint64_t i = 200; i-- > 0;) {
    PageRef page(&cache);
    ASSERT_EQ(std::memcmp(page.AcquireForRead(10 + i), bytes.data() + i * kPageSize, kPageSize), 0);
  }
}

TEST_F(FilePageCacheTest, ADeviceThatRefusesTheExtensionFailsGetPageAndKeepsTheCache) {
  Testing::InstalledFileSystem memory;
  memory.Memory().WriteAll(L"small.bin", Pattern(2, 6));
  memory.Memory().SetCapacity(4 * kPageSize + RollbackJournal::kHeaderSize);  // room for the journal's header too
  FilePageCache cache(L"small.bin", 4);
  ASSERT_NE(cache.GetPage(10, true), nullptr);
  cache.UnpinPage(10);
  const std::vector<std::uint64_t> order = cache.GetRecencyOrder();
  try {
    cache.GetPage(14, false);  // would need 5 pages
    FAIL() << "grew past the device";
  } catch (const FileIOException& e) {
    EXPECT_EQ(e.errorCode, ENOSPC);
  }
  EXPECT_EQ(cache.GetRecencyOrder(), order);
  EXPECT_EQ(cache.GetFileLength(), 2 * kPageSize);
  EXPECT_EQ(memory.Memory().ReadAll(L"small.bin").size(), 2 * kPageSize);
  ASSERT_NE(cache.GetPage(13, false), nullptr);  // 4 pages fit
  cache.UnpinPage(13);
  EXPECT_EQ(memory.Memory().ReadAll(L"small.bin").size(), 4 * kPageSize);
  cache.Close();
}

TEST_F(FilePageCacheTest, AnExtensionThatTheSystemRefusesOnHandingOverFailsWithItsErrno) {
  const std::wstring path = FileWith(Pattern(1, 2));
  FilePageCache cache(path.c_str(), 4);
  FileFaults::FailNth(FileCall::kFlush, 1, EFBIG);
  try {
    cache.GetPage(40, false);
    FAIL() << "grew the file";
  } catch (const FileIOException& e) {
    EXPECT_EQ(e.errorCode, EFBIG);
  }
  FileFaults::Reset();
  EXPECT_EQ(cache.GetFileLength(), kPageSize);
  EXPECT_EQ(cache.GetCachedPageCount(), 0u);
  cache.Close();
  EXPECT_EQ(TempDir::SizeOf(path), kPageSize);
}

TEST_F(FilePageCacheTest, RollbackPutsBackEveryPageWrittenSinceTheLastCommit) {
  const auto bytes = Pattern(3, 4);
  const std::wstring path = FileWith(bytes);
  FilePageCache cache(path.c_str(), 1);
  for (std::uint64_t id : {10, 11, 12, 13}) {
    PageRef page(&cache);
    page.AcquireForWrite(id)[5] = 0xEE;
  }
  cache.Commit();
  auto committed = bytes;
  committed.resize(4 * kPageSize, 0);
  for (std::size_t p = 0; p < 4; ++p) committed[p * kPageSize + 5] = 0xEE;
  EXPECT_EQ(TempDir::ReadAll(path), committed);
  for (std::uint64_t id : {11, 12, 14, 10}) {
    PageRef page(&cache);
    page.AcquireForWrite(id)[6] = 0x77;
  }
  EXPECT_EQ(TempDir::SizeOf(path), 5 * kPageSize);
  EXPECT_NE(TempDir::ReadAll(path), committed);  // evicted pages reached the file
  cache.Rollback();
  EXPECT_EQ(TempDir::ReadAll(path), committed);
  EXPECT_EQ(cache.GetFileLength(), 4 * kPageSize);
  EXPECT_FALSE(cache.IsJournalActive());
  EXPECT_EQ(cache.GetPage(11, true)[6], committed[kPageSize + 6]);
  cache.UnpinPage(11);
}

TEST_F(FilePageCacheTest, OpeningRollsBackWhatADeadWriterLeft) {
  Testing::InstalledFileSystem memory;
  const auto bytes = Pattern(3, 9);
  memory.Memory().WriteAll(L"p.bin", bytes);
  {
    auto* cache = new FilePageCache(L"p.bin", 1);
    for (std::uint64_t id : {12, 10, 11, 15}) {
      PageRef page(cache);
      page.AcquireForWrite(id)[0] = 0x55;
    }
    memory.Memory().EndProcess();  // the writer dies here
    delete cache;
  }
  EXPECT_NE(memory.Memory().ReadAll(L"p.bin"), bytes);
  ASSERT_TRUE(memory.Memory().Exists(RollbackJournal::PathFor(L"p.bin").c_str()));
  FilePageCache reopened(L"p.bin", 4);
  EXPECT_EQ(memory.Memory().ReadAll(L"p.bin"), bytes);
  EXPECT_EQ(reopened.GetFileLength(), bytes.size());
  EXPECT_FALSE(memory.Memory().Exists(RollbackJournal::PathFor(L"p.bin").c_str()));
}

TEST_F(FilePageCacheTest, PagesFreeInTheSavedStateAreNotJournaled) {
  Testing::InstalledFileSystem memory;
  memory.Memory().WriteAll(L"f.bin", Pattern(3, 1));
  FilePageCache cache(L"f.bin", 4);
  cache.SetSavedFreePages({false, true, true});
  cache.GetPage(11, false)[0] = 1;
  cache.UnpinPage(11);
  cache.GetPage(12, false)[0] = 2;
  cache.UnpinPage(12);
  EXPECT_FALSE(cache.IsJournalActive());  // nothing of the saved state to keep yet
  cache.GetPage(10, false)[0] = 3;
  cache.UnpinPage(10);
  EXPECT_EQ(memory.Memory().ReadAll(RollbackJournal::PathFor(L"f.bin")).size(),
            RollbackJournal::kHeaderSize + RollbackJournal::kRecordSize);
  FileFaults::StartCounting();
  cache.Commit();
  EXPECT_EQ(FileFaults::Calls(FileCall::kSync), 2u);  // the journal, then the file
  FileFaults::Reset();
}

TEST_F(FilePageCacheTest, PagesPastTheSavedTableAreNotJournaledButAllAreWhileTheTableIsUnknown) {
  Testing::InstalledFileSystem memory;
  memory.Memory().WriteAll(L"t.bin", Pattern(3, 1));
  const std::wstring journal = RollbackJournal::PathFor(L"t.bin");
  {
    FilePageCache cache(L"t.bin", 4);
    cache.GetPage(12, false)[0] = 1;  // not known to be free: kept
    cache.UnpinPage(12);
    EXPECT_EQ(memory.Memory().ReadAll(journal).size(), RollbackJournal::kHeaderSize + RollbackJournal::kRecordSize);
  }
  FilePageCache cache(L"t.bin", 4);
  cache.SetSavedFreePages({false});  // a table of one page: 11 and 12 lie past it
  cache.GetPage(12, false)[0] = 2;
  cache.UnpinPage(12);
  cache.GetPage(11, false)[0] = 3;
  cache.UnpinPage(11);
  EXPECT_FALSE(cache.IsJournalActive());
  cache.GetPage(10, false)[0] = 4;
  cache.UnpinPage(10);
  EXPECT_EQ(memory.Memory().ReadAll(journal).size(), RollbackJournal::kHeaderSize + RollbackJournal::kRecordSize);
}

TEST_F(FilePageCacheTest, ACutJournalsThePagesInUseItTakesAndTheSavedFilesLastPageOnly) {
  Testing::InstalledFileSystem memory;
  const auto bytes = Pattern(6, 5);
  memory.Memory().WriteAll(L"k.bin", bytes);
  FilePageCache cache(L"k.bin", 4);
  // Pages 10 and 11 in use, 12 free, 13 to 15 past the saved table.
  cache.SetSavedFreePages({false, false, true});
  cache.CutFile(1);
  const RollbackJournal::Found found = RollbackJournal::Inspect(L"k.bin");
  EXPECT_TRUE(found.complete);
  EXPECT_EQ(found.savedLength, 6 * kPageSize);
  EXPECT_EQ(found.pageIds, (std::vector<std::uint64_t>{11, 15}));
  cache.Rollback();
  auto restored = bytes;
  std::fill(restored.begin() + 2 * kPageSize, restored.begin() + 5 * kPageSize, 0);  // free: not kept
  EXPECT_EQ(memory.Memory().ReadAll(L"k.bin"), restored);
  EXPECT_EQ(cache.GetFileLength(), 6 * kPageSize);
}

TEST_F(FilePageCacheTest, ACutOfAFileThatEndsMidPageKeepsItsLastBytes) {
  Testing::InstalledFileSystem memory;
  auto bytes = Pattern(3, 8);
  bytes.resize(2 * kPageSize + 100);
  memory.Memory().WriteAll(L"u.bin", bytes);
  FilePageCache cache(L"u.bin", 4);
  cache.SetSavedFreePages({false, true});
  cache.CutFile(1);
  EXPECT_EQ(RollbackJournal::Inspect(L"u.bin").pageIds, (std::vector<std::uint64_t>{12}));
  cache.Rollback();
  auto restored = bytes;
  std::fill(restored.begin() + kPageSize, restored.begin() + 2 * kPageSize, 0);
  EXPECT_EQ(memory.Memory().ReadAll(L"u.bin"), restored);
}

TEST_F(FilePageCacheTest, AReadOnlyOpenTakesTheFileAsItIsBesideADamagedJournal) {
  Testing::InstalledFileSystem memory;
  const auto bytes = Pattern(2, 6);
  memory.Memory().WriteAll(L"r.bin", bytes);
  {
    RollbackJournal journal;
    journal.Attach(L"r.bin");
    journal.Begin(std::uint64_t{1} << 40);
    journal.Append(10, Pattern(1, 99).data());
  }
  FilePageCache cache(L"r.bin", 4, FilePageCache::Access::kReadOnly);
  EXPECT_EQ(cache.GetFileLength(), bytes.size());
  EXPECT_EQ(cache.GetPage(10, true)[1], bytes[1]);
  cache.UnpinPage(10);
  EXPECT_TRUE(memory.Memory().Exists(RollbackJournal::PathFor(L"r.bin").c_str()));
}

TEST_F(FilePageCacheTest, CuttingTheFileIsUndoneByARollbackAndKeptByACommit) {
  Testing::InstalledFileSystem memory;
  const auto bytes = Pattern(5, 3);
  memory.Memory().WriteAll(L"c.bin", bytes);
  FilePageCache cache(L"c.bin", 4);
  cache.GetPage(13, false)[0] = 9;  // a page the cut drops
  cache.UnpinPage(13);
  EXPECT_THROW(cache.CutFile(5), InvalidParameterException);
  cache.CutFile(2);
  EXPECT_EQ(cache.GetFileLength(), 2 * kPageSize);
  EXPECT_FALSE(cache.IsCached(13));
  EXPECT_EQ(memory.Memory().ReadAll(L"c.bin").size(), 2 * kPageSize);
  cache.Rollback();
  EXPECT_EQ(memory.Memory().ReadAll(L"c.bin"), bytes);
  EXPECT_EQ(cache.GetFileLength(), 5 * kPageSize);
  cache.CutFile(3);
  cache.Commit();
  EXPECT_EQ(memory.Memory().ReadAll(L"c.bin"), std::vector<std::uint8_t>(bytes.begin(), bytes.begin() + 3 * kPageSize));
  EXPECT_EQ(memory.Memory().UnsyncedChangeCount(L"c.bin"), 0u);
  EXPECT_EQ(cache.GetSavedLength(), 3 * kPageSize);
}

}  // namespace
}  // namespace Tovrel
