#include "pagefile/HeadFileWriteOnlySeeker.h"

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

class HeadFileWriteOnlySeekerTest : public ::testing::Test {
 protected:
  void SetUp() override { path_ = dir_.File("head.bin"); }
  void TearDown() override { FileFaults::Reset(); }
  TempDir dir_;
  std::wstring path_;
};

TEST_F(HeadFileWriteOnlySeekerTest, AChainOf8160BytesFitsOnePage) {
  FilePageCache cache(path_.c_str(), 4);
  RefPtr<HeadFileWriteOnlySeeker> seeker(new HeadFileWriteOnlySeeker(&cache));
  const std::uint64_t ids[] = {10};
  const std::uint64_t nexts[] = {0};
  ASSERT_TRUE(seeker->InitializeForWrite(ids, nexts, 1, 8160));
  EXPECT_EQ(seeker->pageCount, 1u);
  EXPECT_EQ(seeker->pageRanges[0].begin, 32u);
  EXPECT_EQ(seeker->pageRanges[0].end, 8192u);
}

TEST_F(HeadFileWriteOnlySeekerTest, AChainOf8161BytesNeedsASecondPageWithOneByte) {
  FilePageCache cache(path_.c_str(), 4);
  RefPtr<HeadFileWriteOnlySeeker> seeker(new HeadFileWriteOnlySeeker(&cache));
  const std::uint64_t ids[] = {10, 11};
  const std::uint64_t nexts[] = {11, 0};
  ASSERT_TRUE(seeker->InitializeForWrite(ids, nexts, 2, 8161));
  seeker->LoadPagesUpTo(1);
  EXPECT_EQ(seeker->pageRanges[0].end, 8192u);
  EXPECT_EQ(seeker->pageRanges[1].begin, 16u);
  EXPECT_EQ(seeker->pageRanges[1].end, 17u);
  EXPECT_EQ(seeker->GetLastPreparedIndex(), 1u);
}

TEST_F(HeadFileWriteOnlySeekerTest, ASizeOfZeroReturnsFalse) {
  FilePageCache cache(path_.c_str(), 4);
  RefPtr<HeadFileWriteOnlySeeker> seeker(new HeadFileWriteOnlySeeker(&cache));
  const std::uint64_t ids[] = {10};
  const std::uint64_t nexts[] = {0};
  EXPECT_FALSE(seeker->InitializeForWrite(ids, nexts, 1, 0));
  EXPECT_EQ(cache.GetFileLength(), 0u);
}

TEST_F(HeadFileWriteOnlySeekerTest, AFirstPageOtherThanTenIsRefused) {
  FilePageCache cache(path_.c_str(), 4);
  RefPtr<HeadFileWriteOnlySeeker> seeker(new HeadFileWriteOnlySeeker(&cache));
  const std::uint64_t ids[] = {11};
  const std::uint64_t nexts[] = {0};
  EXPECT_THROW(seeker->InitializeForWrite(ids, nexts, 1, 100), InvalidParameterException);
  EXPECT_EQ(cache.GetCachedPageCount(), 0u);
}

TEST_F(HeadFileWriteOnlySeekerTest, APageCountThatDoesNotFitTheSizeIsRefused) {
  FilePageCache cache(path_.c_str(), 4);
  RefPtr<HeadFileWriteOnlySeeker> seeker(new HeadFileWriteOnlySeeker(&cache));
  const std::uint64_t ids[] = {10, 11, 12};
  const std::uint64_t nexts[] = {11, 12, 0};
  EXPECT_THROW(seeker->InitializeForWrite(ids, nexts, 2, 100), InvalidParameterException);
  EXPECT_THROW(seeker->InitializeForWrite(ids, nexts, 1, 8161), InvalidParameterException);
  EXPECT_THROW(seeker->InitializeForWrite(ids, nexts, 0, 100), InvalidParameterException);
  EXPECT_THROW(seeker->InitializeForWrite(ids, nexts, 3, 0x1FFFEC001), InvalidParameterException);
  EXPECT_TRUE(seeker->InitializeForWrite(ids, nexts, 3, 8160 + 8176 + 1));
}

TEST_F(HeadFileWriteOnlySeekerTest, WritesTheFirstPageHeaderAtOnceAndOthersWhenReached) {
  {
    FilePageCache cache(path_.c_str(), 4);
    cache.EnsureFileCoversPage(12);
    RefPtr<HeadFileWriteOnlySeeker> seeker(new HeadFileWriteOnlySeeker(&cache));
    const std::uint64_t ids[] = {10, 12, 11};
    const std::uint64_t nexts[] = {12, 11, 0};
    const std::uint64_t size = 8160 + 8176 + 500;
    ASSERT_TRUE(seeker->InitializeForWrite(ids, nexts, 3, size));
    std::uint64_t index = 0, offset = 0;
    ASSERT_TRUE(seeker->Locate(index, offset, 8160 + 8176 + 10));
    EXPECT_EQ(index, 2u);
    EXPECT_EQ(offset, 26u);
    EXPECT_EQ(seeker->pageRanges[2].end, 516u);
  }
  const auto bytes = TempDir::ReadAll(path_);
  ASSERT_EQ(bytes.size(), 3 * kPageSize);
  const std::uint8_t* first = bytes.data();
  EXPECT_EQ(LittleEndian::Load64(first), 3u);
  EXPECT_EQ(LittleEndian::Load64(first + 8), 8160u + 8176u + 500u);
  EXPECT_EQ(LittleEndian::Load64(first + 16), 12u);
  EXPECT_EQ(LittleEndian::Load64(first + 24), 8192u);
  const std::uint8_t* second = bytes.data() + 2 * kPageSize;  // page 12
  EXPECT_EQ(LittleEndian::Load64(second), 11u);
  EXPECT_EQ(LittleEndian::Load64(second + 8), 8192u);
  const std::uint8_t* third = bytes.data() + kPageSize;  // page 11
  EXPECT_EQ(LittleEndian::Load64(third), 0u);
  EXPECT_EQ(LittleEndian::Load64(third + 8), 516u);
}

TEST_F(HeadFileWriteOnlySeekerTest, EndOffsetsFollowFromTheSizeAlone) {
  EXPECT_EQ(HeadFileWriteOnlySeeker::EndOffsetFor(100, 0), 132u);
  EXPECT_EQ(HeadFileWriteOnlySeeker::EndOffsetFor(100, 5), 132u);
  EXPECT_EQ(HeadFileWriteOnlySeeker::EndOffsetFor(8160, 0), 8192u);
  EXPECT_EQ(HeadFileWriteOnlySeeker::EndOffsetFor(8161, 1), 17u);
  EXPECT_EQ(HeadFileWriteOnlySeeker::EndOffsetFor(8160 + 8176, 1), 8192u);
  EXPECT_EQ(HeadFileWriteOnlySeeker::EndOffsetFor(8160 + 8176 * 2, 1), 8192u);
}

TEST_F(HeadFileWriteOnlySeekerTest, APageThatCannotBePinnedThrowsCorruption) {
  FilePageCache cache(path_.c_str(), 1);
  cache.EnsureFileCoversPage(11);
  PageRef other(&cache);
  ASSERT_NE(other.AcquireForRead(11), nullptr);
  RefPtr<HeadFileWriteOnlySeeker> seeker(new HeadFileWriteOnlySeeker(&cache));
  const std::uint64_t ids[] = {10};
  const std::uint64_t nexts[] = {0};
  EXPECT_THROW(seeker->InitializeForWrite(ids, nexts, 1, 10), FileDataCorruptException);
  EXPECT_EQ(cache.GetPinCount(11), 1);
  EXPECT_FALSE(cache.IsCached(10));
}

TEST_F(HeadFileWriteOnlySeekerTest, AnInvalidPageIdInTheLayoutThrowsCorruptionWhenReached) {
  FilePageCache cache(path_.c_str(), 4);
  RefPtr<HeadFileWriteOnlySeeker> seeker(new HeadFileWriteOnlySeeker(&cache));
  const std::uint64_t ids[] = {10, 3};
  const std::uint64_t nexts[] = {3, 0};
  ASSERT_TRUE(seeker->InitializeForWrite(ids, nexts, 2, 9000));
  EXPECT_THROW(seeker->LoadPagesUpTo(1), FileDataCorruptException);
  EXPECT_EQ(cache.GetPinCount(10), 0);
}

TEST_F(HeadFileWriteOnlySeekerTest, AFileFailurePassesThroughUnchanged) {
  FilePageCache cache(path_.c_str(), 4);
  RefPtr<HeadFileWriteOnlySeeker> seeker(new HeadFileWriteOnlySeeker(&cache));
  const std::uint64_t ids[] = {10};
  const std::uint64_t nexts[] = {0};
  FileFaults::FailNth(FileCall::kWrite, 1, 28);
  try {
    seeker->InitializeForWrite(ids, nexts, 1, 10);
    FAIL() << "no exception";
  } catch (const FileIOException& e) {
    EXPECT_EQ(e.errorCode, 28);
  }
  EXPECT_EQ(cache.GetCachedPageCount(), 0u);
}

TEST_F(HeadFileWriteOnlySeekerTest, WrittenChainsReadBackByteForByte) {
  const std::uint64_t sizes[] = {1, 31, 8159, 8160, 8161, 8160 + 8176, 8160 + 8176 + 1, 100000};
  for (std::uint64_t size : sizes) {
    SCOPED_TRACE(size);
    FilePageCache cache(path_.c_str(), 3);
    std::vector<std::uint64_t> others;
    for (std::uint64_t i = 0; i < 20; ++i) others.push_back(40 - i);  // out of order on purpose
    const auto payload = HeadChainFile::Payload(size, static_cast<std::uint32_t>(size));
    HeadChainFile::Write(cache, HeadChainFile::Layout(size, others), payload);
    cache.Close();
    cache.Open(path_.c_str(), 2);
    EXPECT_EQ(HeadChainFile::Read(cache), payload);
  }
}

}  // namespace
}  // namespace Tovrel
