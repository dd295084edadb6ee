#include "streams/PagedFileStream.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <numeric>
#include <vector>

#include "pagefile/ChildFileSeeker.h"
#include "pagefile/FileDataCorruptException.h"
#include "pagefile/HeadFileSeeker.h"
#include "pagefile/HeadFileWriteOnlySeeker.h"
#include "pagefile/InvalidParameterException.h"
#include "platform/FileFaults.h"
#include "streams/PageAllocator.h"
#include "support/DataStreamContract.h"
#include "support/HeadChainFile.h"
#include "support/TempDir.h"

namespace Tovrel {
namespace {

using Testing::HeadChainFile;
using Testing::TempDir;

std::vector<std::uint8_t> Pattern(std::size_t size, std::uint8_t salt) {
  std::vector<std::uint8_t> bytes(size);
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<std::uint8_t>(i * 7 + salt + i / 251);
  return bytes;
}

// A stream over a chain of whole pages plus a tail, set up through a page
// allocator as the package sets up its streams.
struct ChainFixture {
  ChainFixture(FilePageCache& cache, std::uint64_t size, std::uint64_t tailOffset)
      : allocator(new PageAllocator), seeker(new ChildFileSeeker) {
    const std::uint64_t n = size / kPageSize;
    StreamEntry entry{0, size, 0, n};
    std::uint64_t previous = 0;
    for (std::uint64_t i = 0; i < n; ++i) {
      previous = allocator->AllocatePage(previous);
      if (i == 0) entry.firstPage = previous;
      cache.EnsureFileCoversPage(previous);
    }
    TailLocation tail{};
    if (size % kPageSize != 0) {
      tail.firstPage = allocator->AllocatePage(0);
      tail.secondPage = allocator->AllocatePage(tail.firstPage);
      cache.EnsureFileCoversPage(tail.secondPage);
      tail.offsetInPage = tailOffset;
      tail.size = size % kPageSize;
      if (tail.offsetInPage + tail.size <= kPageSize) tail.secondPage = 0;
    }
    seeker->AttachStream(allocator.Get(), entry, tail);
  }
  RefPtr<PageAllocator> allocator;
  RefPtr<ChildFileSeeker> seeker;
};

class PagedFileStreamTest : public ::testing::Test {
 protected:
  void TearDown() override { FileFaults::Reset(); }

  // A stream over a head chain holding `payload`.
  RefPtr<PagedFileStream> HeadStream(FilePageCache& cache, const std::vector<std::uint8_t>& payload) {
    std::vector<std::uint64_t> others;
    for (std::uint64_t id = 11; id < 40; ++id) others.push_back(id);
    HeadChainFile::Write(cache, HeadChainFile::Layout(payload.size(), others), payload);
    RefPtr<HeadFileSeeker> seeker(new HeadFileSeeker(&cache));
    seeker->OpenForRead();
    RefPtr<IPagedFileSeeker> base(seeker.Get());
    return RefPtr<PagedFileStream>(new PagedFileStream(&cache, base));
  }

  RefPtr<PagedFileStream> ChainStream(FilePageCache& cache, std::uint64_t size, std::uint64_t tailOffset) {
    chains_.emplace_back(new ChainFixture(cache, size, tailOffset));
    RefPtr<IPagedFileSeeker> base(chains_.back()->seeker.Get());
    return RefPtr<PagedFileStream>(new PagedFileStream(&cache, base));
  }

  TempDir dir_;
  std::wstring path_ = dir_.File("stream.bin");
  std::vector<std::unique_ptr<ChainFixture>> chains_;
};

TEST_F(PagedFileStreamTest, ReadStopsAtTheEndOfAOnePageChain) {
  FilePageCache cache(path_.c_str(), 8);
  const auto payload = Pattern(100, 1);
  RefPtr<PagedFileStream> stream = HeadStream(cache, payload);
  std::vector<std::uint8_t> buffer(200, 0);
  EXPECT_EQ(stream->Read(buffer.data(), 200), 100u);
  EXPECT_EQ(stream->GetPosition(), 100u);
  EXPECT_TRUE(std::equal(payload.begin(), payload.end(), buffer.begin()));
  EXPECT_EQ(stream->Read(buffer.data(), 200), 0u);
  EXPECT_EQ(stream->GetPosition(), 100u);
}

TEST_F(PagedFileStreamTest, WriteStopsAtTheEndAndNeverGrows) {
  FilePageCache cache(path_.c_str(), 8);
  RefPtr<PagedFileStream> stream = HeadStream(cache, Pattern(100, 1));
  ASSERT_TRUE(stream->Seek(0, 95));
  const auto bytes = Pattern(10, 9);
  EXPECT_EQ(stream->Write(bytes.data(), 10), 5u);
  EXPECT_EQ(stream->GetSize(), 100u);
  EXPECT_EQ(stream->GetPosition(), 100u);
  ASSERT_TRUE(stream->Seek(0, 95));
  std::vector<std::uint8_t> back(5);
  EXPECT_EQ(stream->Read(back.data(), 5), 5u);
  EXPECT_TRUE(std::equal(back.begin(), back.end(), bytes.begin()));
}

TEST_F(PagedFileStreamTest, SeekToTheEndWorksAndPastItFailsUnchanged) {
  FilePageCache cache(path_.c_str(), 8);
  RefPtr<PagedFileStream> stream = HeadStream(cache, Pattern(20000, 1));
  ASSERT_TRUE(stream->Seek(0, 123));
  EXPECT_FALSE(stream->Seek(0, 20001));
  EXPECT_EQ(stream->GetPosition(), 123u);
  ASSERT_TRUE(stream->Seek(2, 0));
  EXPECT_EQ(stream->GetPosition(), 20000u);
  EXPECT_FALSE(stream->Seek(1, 1));
  EXPECT_FALSE(stream->Seek(2, -20001));
  EXPECT_EQ(stream->GetPosition(), 20000u);
  ASSERT_TRUE(stream->Seek(7, -5));
  EXPECT_EQ(stream->GetPosition(), 19995u);
}

TEST_F(PagedFileStreamTest, SeekingToTheCurrentPositionKeepsThePinnedPages) {
  FilePageCache cache(path_.c_str(), 8);
  RefPtr<PagedFileStream> stream = HeadStream(cache, Pattern(20000, 1));
  ASSERT_TRUE(stream->Seek(0, 9000));
  std::uint8_t byte = 0;
  ASSERT_EQ(stream->Read(&byte, 1), 1u);
  ASSERT_EQ(stream->Write(&byte, 1), 1u);
  const std::uint64_t page = 11;
  EXPECT_EQ(cache.GetPinCount(page), 2);
  EXPECT_TRUE(stream->Seek(1, 0));
  EXPECT_TRUE(stream->Seek(0, 9002));
  EXPECT_EQ(cache.GetPinCount(page), 2);
  EXPECT_TRUE(stream->Seek(0, 9100));
  EXPECT_EQ(cache.GetPinCount(page), 2) << "a seek inside the page keeps both pins";
  EXPECT_TRUE(stream->Seek(0, 10));
  EXPECT_EQ(cache.GetPinCount(page), 0);
}

TEST_F(PagedFileStreamTest, ZeroCountsMoveNothing) {
  FilePageCache cache(path_.c_str(), 8);
  RefPtr<PagedFileStream> stream = HeadStream(cache, Pattern(100, 1));
  std::uint8_t byte = 0;
  EXPECT_EQ(stream->Read(&byte, 0), 0u);
  EXPECT_EQ(stream->Write(&byte, 0), 0u);
  EXPECT_EQ(stream->GetPosition(), 0u);
  EXPECT_EQ(cache.GetPinCount(10), 0);
}

TEST_F(PagedFileStreamTest, ReadAcrossAHeadPageBoundaryResumesAfterTheNextHeader) {
  FilePageCache cache(path_.c_str(), 8);
  const auto payload = Pattern(8160 + 8176 + 300, 3);
  RefPtr<PagedFileStream> stream = HeadStream(cache, payload);
  ASSERT_TRUE(stream->Seek(0, 8150));
  std::vector<std::uint8_t> back(40);
  ASSERT_EQ(stream->Read(back.data(), back.size()), back.size());
  EXPECT_TRUE(std::equal(back.begin(), back.end(), payload.begin() + 8150));
  std::vector<std::uint8_t> all(payload.size());
  ASSERT_TRUE(stream->Seek(0, 0));
  ASSERT_EQ(stream->Read(all.data(), all.size()), all.size());
  EXPECT_EQ(all, payload);
}

TEST_F(PagedFileStreamTest, ConstructionRefusesAMissingSeekerOrAnEmptyChain) {
  FilePageCache cache(path_.c_str(), 8);
  RefPtr<IPagedFileSeeker> none;
  EXPECT_THROW(new PagedFileStream(&cache, none), InvalidParameterException);
  RefPtr<IPagedFileSeeker> unattached(new ChildFileSeeker);
  EXPECT_THROW(new PagedFileStream(&cache, unattached), InvalidParameterException);
  EXPECT_THROW(new PagedFileStream(nullptr, unattached), InvalidParameterException);
}

TEST_F(PagedFileStreamTest, WholePagesAndACrossingTailReadBackWhatWasWritten) {
  FilePageCache cache(path_.c_str(), 4);
  const std::uint64_t size = 3 * 8192 + 300;
  RefPtr<PagedFileStream> stream = ChainStream(cache, size, 8000);
  const auto bytes = Pattern(size, 5);
  ASSERT_EQ(stream->Write(bytes.data(), size), size);
  EXPECT_EQ(stream->GetPosition(), size);
  std::vector<std::uint8_t> back(size);
  ASSERT_TRUE(stream->Seek(0, 0));
  ASSERT_EQ(stream->Read(back.data(), size), size);
  EXPECT_EQ(back, bytes);
  ASSERT_TRUE(stream->Seek(2, -250));
  std::vector<std::uint8_t> end(300);
  ASSERT_EQ(stream->Read(end.data(), 300), 250u);
  EXPECT_TRUE(std::equal(end.begin(), end.begin() + 250, bytes.end() - 250));
}

TEST_F(PagedFileStreamTest, TailEndingAtThePageEndStopsThere) {
  FilePageCache cache(path_.c_str(), 4);
  const std::uint64_t size = 8192 + 192;
  RefPtr<PagedFileStream> stream = ChainStream(cache, size, 8000);
  ASSERT_EQ(stream->Write(Pattern(size, 2).data(), size + 50), size);
  std::vector<std::uint8_t> back(size + 10);
  ASSERT_TRUE(stream->Seek(0, 0));
  EXPECT_EQ(stream->Read(back.data(), back.size()), size);
  EXPECT_EQ(stream->GetPosition(), size);
}

TEST_F(PagedFileStreamTest, RemoveRangeOfNothingMovesNothingAndSeeks) {
  FilePageCache cache(path_.c_str(), 4);
  const std::uint64_t size = 2 * 8192;
  RefPtr<PagedFileStream> stream = ChainStream(cache, size, 0);
  const auto bytes = Pattern(size, 4);
  ASSERT_EQ(stream->Write(bytes.data(), size), size);
  ASSERT_TRUE(stream->RemoveRange(5000, 0));
  EXPECT_EQ(stream->GetPosition(), 5000u);
  std::vector<std::uint8_t> back(size);
  ASSERT_TRUE(stream->Seek(0, 0));
  ASSERT_EQ(stream->Read(back.data(), size), size);
  EXPECT_EQ(back, bytes);
}

TEST_F(PagedFileStreamTest, RemoveRangeClosesTheGapAcrossPagesAndKeepsTheLastBytes) {
  for (std::uint64_t capacity : {1, 4}) {
    FilePageCache cache(path_.c_str(), capacity);
    const std::uint64_t size = 8 * 8192;
    RefPtr<PagedFileStream> stream = ChainStream(cache, size, 0);
    const auto bytes = Pattern(size, 6);
    ASSERT_EQ(stream->Write(bytes.data(), size), size);
    ASSERT_TRUE(stream->RemoveRange(8000, 5000)) << capacity;
    EXPECT_EQ(stream->GetPosition(), 8000u);
    std::vector<std::uint8_t> back(size);
    ASSERT_TRUE(stream->Seek(0, 0));
    ASSERT_EQ(stream->Read(back.data(), size), size);
    std::vector<std::uint8_t> expected(bytes.begin(), bytes.begin() + 8000);
    expected.insert(expected.end(), bytes.begin() + 13000, bytes.end());
    expected.insert(expected.end(), bytes.end() - 5000, bytes.end());
    EXPECT_EQ(back, expected) << capacity;
  }
}

TEST_F(PagedFileStreamTest, RemoveRangeRefusesPositionsOutsideTheStream) {
  FilePageCache cache(path_.c_str(), 4);
  RefPtr<PagedFileStream> stream = ChainStream(cache, 100, 0);
  EXPECT_FALSE(stream->RemoveRange(101, 0));
  EXPECT_FALSE(stream->RemoveRange(50, 51));
  EXPECT_FALSE(stream->RemoveRange(-1, 1));
}

TEST_F(PagedFileStreamTest, RemoveRangeOverAPageThatCannotBeHadIsCorrupt) {
  FilePageCache cache(path_.c_str(), 1);
  RefPtr<PagedFileStream> stream = ChainStream(cache, 2 * 8192, 0);
  PageRef pinned(&cache);
  ASSERT_NE(pinned.AcquireForRead(chains_.back()->seeker->pageIds[1]), nullptr);
  EXPECT_THROW(stream->RemoveRange(0, 100), FileDataCorruptException);
}

TEST_F(PagedFileStreamTest, APageThatCannotBeHadShortensTheTransferWithoutThrowing) {
  FilePageCache cache(path_.c_str(), 1);
  RefPtr<PagedFileStream> stream = ChainStream(cache, 2 * 8192, 0);
  const auto bytes = Pattern(2 * 8192, 8);
  ASSERT_EQ(stream->Write(bytes.data(), bytes.size()), bytes.size());
  ASSERT_TRUE(stream->Seek(0, 0));
  stream->ReleasePages();
  {
    PageRef pinned(&cache);
    ASSERT_NE(pinned.AcquireForRead(chains_.back()->seeker->pageIds[1]), nullptr);
    std::vector<std::uint8_t> back(100);
    EXPECT_EQ(stream->Read(back.data(), back.size()), 0u);
    EXPECT_EQ(stream->GetPosition(), 0u);
  }
  cache.Close();
  cache.Open(path_.c_str(), 1);
  // Both whole pages come in one call straight into the buffer: when it
  // fails, nothing is read.
  FileFaults::FailNth(FileCall::kRead, 1, EIO);
  std::vector<std::uint8_t> back(bytes.size());
  EXPECT_EQ(stream->Read(back.data(), back.size()), 0u);
  EXPECT_EQ(stream->GetPosition(), 0u);
  // Read in parts smaller than a page, through the cache: the second
  // page's read fails, and the transfer ends after the first page.
  FileFaults::FailNth(FileCall::kRead, 2, EIO);
  std::uint64_t done = 0;
  for (std::uint64_t got = 1; got != 0 && done < back.size(); done += got) {
    got = stream->Read(back.data() + done, 4096);
  }
  EXPECT_EQ(done, 8192u);
  EXPECT_EQ(stream->GetPosition(), 8192u);
  EXPECT_TRUE(std::equal(back.begin(), back.begin() + 8192, bytes.begin()));
}

TEST_F(PagedFileStreamTest, WholePagesAreReadStraightFromTheFileAroundThoseTheCacheHolds) {
  // Eight consecutive pages; page 3 is held (pinned) and page 5 changed in
  // the cache and not yet written: a read of the whole stream gives every
  // byte as the stream holds it, takes the held and changed pages from the
  // cache, reads the others from the file in runs, and caches none of them.
  FilePageCache cache(path_.c_str(), 4);
  RefPtr<PagedFileStream> stream = ChainStream(cache, 8 * 8192, 0);
  auto bytes = Pattern(8 * 8192, 9);
  ASSERT_EQ(stream->Write(bytes.data(), bytes.size()), bytes.size());
  stream->ReleasePages();
  cache.Close();
  cache.Open(path_.c_str(), 4);
  const auto& ids = chains_.back()->seeker->pageIds;
  for (std::uint64_t k = 1; k < 8; ++k) ASSERT_EQ(ids[k], ids[0] + k);
  PageRef held(&cache);
  ASSERT_NE(held.AcquireForRead(ids[3]), nullptr);
  {
    PageRef changed(&cache);
    std::uint8_t* data = changed.AcquireForWrite(ids[5]);
    ASSERT_NE(data, nullptr);
    data[100] ^= 0xFF;
    bytes[5 * 8192 + 100] ^= 0xFF;
  }
  FileFaults::StartCounting();
  ASSERT_TRUE(stream->Seek(0, 0));
  std::vector<std::uint8_t> back(bytes.size());
  EXPECT_EQ(stream->Read(back.data(), back.size()), bytes.size());
  EXPECT_EQ(back, bytes);
  EXPECT_EQ(stream->GetPosition(), bytes.size());
  EXPECT_EQ(FileFaults::Calls(FileCall::kRead), 3u);  // pages 0-2, 4, 6-7
  for (std::uint64_t k : {0, 1, 2, 4, 6, 7}) EXPECT_FALSE(cache.IsCached(ids[k])) << k;
  EXPECT_EQ(stream->Read(back.data(), 1), 0u);  // at the end
  // And a read from the middle of a page goes through the cache.
  ASSERT_TRUE(stream->Seek(0, 8192 + 10));
  EXPECT_EQ(stream->Read(back.data(), 8192), 8192u);
  EXPECT_TRUE(std::equal(back.begin(), back.begin() + 8192, bytes.begin() + 8192 + 10));
}

TEST_F(PagedFileStreamTest, ReleasePagesUnpinsBoth) {
  FilePageCache cache(path_.c_str(), 4);
  RefPtr<PagedFileStream> stream = ChainStream(cache, 8192, 0);
  std::uint8_t byte = 1;
  ASSERT_EQ(stream->Write(&byte, 1), 1u);
  ASSERT_EQ(stream->Read(&byte, 1), 1u);
  const std::uint64_t page = chains_.back()->seeker->pageIds[0];
  EXPECT_EQ(cache.GetPinCount(page), 2);
  stream->ReleasePages();
  EXPECT_EQ(cache.GetPinCount(page), 0);
  ASSERT_EQ(stream->Read(&byte, 1), 1u);
  EXPECT_EQ(cache.GetPinCount(page), 1);
}

// The stream contract over a chain of whole pages and a tail that crosses
// a page boundary. Each stream brings its own file, cache and chain, built
// before the stream itself and given up after it has let its pages go.
struct OwnFiles {
  explicit OwnFiles(std::uint64_t size)
      : cache(new FilePageCache(dir.File("contract.bin").c_str(), 4)),
        chain(new ChainFixture(*cache, size, 8100)),
        seeker(chain->seeker.Get()) {}
  TempDir dir;
  std::unique_ptr<FilePageCache> cache;
  std::unique_ptr<ChainFixture> chain;
  RefPtr<IPagedFileSeeker> seeker;
};

class SelfContainedStream : private OwnFiles, public PagedFileStream {
 public:
  explicit SelfContainedStream(std::uint64_t size) : OwnFiles(size), PagedFileStream(cache.get(), seeker) {}

  static RefPtr<IDataStream> Make(std::uint64_t size) {
    RefPtr<IDataStream> stream(new SelfContainedStream(size));
    const std::vector<std::uint8_t> zeros(size, 0);
    if (stream->Write(zeros.data(), size) != size || !stream->Seek(0, 0)) return RefPtr<IDataStream>();
    return stream;
  }

 protected:
  ~SelfContainedStream() override { ReleasePages(); }
};

using Testing::DataStreamContract;
INSTANTIATE_TEST_SUITE_P(PagedFileStream, DataStreamContract,
                         ::testing::Values(Testing::DataStreamFactory{"PagesAndTail", &SelfContainedStream::Make}));

}  // namespace
}  // namespace Tovrel
