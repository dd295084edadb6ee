#include "pagefile/BaseHeadFileSeeker.h"

#include <gtest/gtest.h>

#include "host/RefPtr.h"
#include "pagefile/HeadFileSeeker.h"
#include "support/HeadChainFile.h"
#include "support/TempDir.h"

namespace Tovrel {
namespace {

using Testing::HeadChainFile;
using Testing::TempDir;

class BaseHeadFileSeekerTest : public ::testing::Test {
 protected:
  // Writes a chain of `size` bytes over pages 10, 11, ... and opens it.
  RefPtr<HeadFileSeeker> ChainOf(std::uint64_t size) {
    path_ = dir_.File("chain" + std::to_string(size) + ".bin");
    {
      FilePageCache writer(path_.c_str(), 4);
      std::vector<std::uint64_t> others;
      for (std::uint64_t id = 11; id < 40; ++id) others.push_back(id);
      HeadChainFile::Write(writer, HeadChainFile::Layout(size, others), HeadChainFile::Payload(size, 1));
    }
    cache_.reset(new FilePageCache(path_.c_str(), 4));
    RefPtr<HeadFileSeeker> seeker(new HeadFileSeeker(cache_.get()));
    seeker->OpenForRead();
    return seeker;
  }

  TempDir dir_;
  std::wstring path_;
  std::unique_ptr<FilePageCache> cache_;
};

TEST_F(BaseHeadFileSeekerTest, TheFirstPositionOfASecondPageIsPastItsHeader) {
  RefPtr<HeadFileSeeker> seeker = ChainOf(8161);
  std::uint64_t index = 9, offset = 9;
  ASSERT_TRUE(seeker->Locate(index, offset, 8160));
  EXPECT_EQ(index, 1u);
  EXPECT_EQ(offset, 16u);
  ASSERT_TRUE(seeker->Locate(index, offset, 8161));
  EXPECT_EQ(index, 1u);
  EXPECT_EQ(offset, 17u);
}

TEST_F(BaseHeadFileSeekerTest, TheEndOfAFullSinglePageIsItsEndOffset) {
  RefPtr<HeadFileSeeker> seeker = ChainOf(8160);
  std::uint64_t index = 9, offset = 9;
  ASSERT_TRUE(seeker->Locate(index, offset, 8160));
  EXPECT_EQ(index, 0u);
  EXPECT_EQ(offset, 8192u);
  ASSERT_TRUE(seeker->Locate(index, offset, 0));
  EXPECT_EQ(offset, 32u);
}

TEST_F(BaseHeadFileSeekerTest, TheEndOfAFullMultiPageChainIsTheLastPageEnd) {
  RefPtr<HeadFileSeeker> seeker = ChainOf(8160 + 8176);
  std::uint64_t index = 9, offset = 9;
  ASSERT_TRUE(seeker->Locate(index, offset, 8160 + 8176));
  EXPECT_EQ(index, 1u);
  EXPECT_EQ(offset, 8192u);
}

TEST_F(BaseHeadFileSeekerTest, NegativeOrTooLargePositionsFailWithZeroedOutputs) {
  RefPtr<HeadFileSeeker> seeker = ChainOf(20000);
  for (std::int32_t position : {-1, -8192, 20001, 0x7FFFFFFF}) {
    std::uint64_t index = 9, offset = 9;
    EXPECT_FALSE(seeker->Locate(index, offset, position)) << position;
    EXPECT_EQ(index, 0u);
    EXPECT_EQ(offset, 0u);
  }
}

TEST_F(BaseHeadFileSeekerTest, AnEmptySeekerLocatesNothing) {
  TempDir dir;
  const std::wstring path = dir.File("x.bin");
  FilePageCache cache(path.c_str(), 1);
  RefPtr<HeadFileSeeker> seeker(new HeadFileSeeker(&cache));
  std::uint64_t index = 9, offset = 9;
  EXPECT_FALSE(seeker->Locate(index, offset, 0));
  EXPECT_EQ(index, 0u);
  EXPECT_FALSE(seeker->Advance(index, offset, PageCursor{0, 0}, 1));
}

TEST_F(BaseHeadFileSeekerTest, LocateMatchesTheLayoutAtEveryPageBoundary) {
  const std::uint64_t size = 8160 + 3 * 8176 + 77;
  RefPtr<HeadFileSeeker> seeker = ChainOf(size);
  for (std::uint64_t page = 1; page <= 4; ++page) {
    const std::uint64_t start = page * 8176 - 16;  // chain position of the page's payload
    std::uint64_t index = 0, offset = 0;
    ASSERT_TRUE(seeker->Locate(index, offset, static_cast<std::int32_t>(start)));
    EXPECT_EQ(index, page);
    EXPECT_EQ(offset, 16u);
    ASSERT_TRUE(seeker->Locate(index, offset, static_cast<std::int32_t>(start - 1)));
    EXPECT_EQ(index, page - 1);
    EXPECT_EQ(offset, 8191u);
  }
}

TEST_F(BaseHeadFileSeekerTest, AdvanceMovesACursorAcrossPages) {
  RefPtr<HeadFileSeeker> seeker = ChainOf(8160 + 2 * 8176 + 5);  // four pages, the last with 5 bytes
  std::uint64_t index = 0, offset = 0;
  ASSERT_TRUE(seeker->Advance(index, offset, PageCursor{0, 8000}, 200));
  EXPECT_EQ(index, 1u);
  EXPECT_EQ(offset, 16u + (8000 - 32 + 200 - 8160));
  ASSERT_TRUE(seeker->Advance(index, offset, PageCursor{1, 16}, 8176));
  EXPECT_EQ(index, 2u);
  EXPECT_EQ(offset, 16u);
  ASSERT_TRUE(seeker->Advance(index, offset, PageCursor{2, 16}, 8176 + 5));
  EXPECT_EQ(index, 3u);
  EXPECT_EQ(offset, 21u);
  EXPECT_FALSE(seeker->Advance(index, offset, PageCursor{3, 16}, 6));
}

TEST_F(BaseHeadFileSeekerTest, AdvanceRefusesACursorOutsideTheTable) {
  RefPtr<HeadFileSeeker> seeker = ChainOf(9000);
  std::uint64_t index = 0, offset = 0;
  EXPECT_FALSE(seeker->Advance(index, offset, PageCursor{2, 16}, 0));
  EXPECT_FALSE(seeker->Advance(index, offset, PageCursor{0, 8193}, 0));
  // Page 1 is not loaded yet, so its range is still empty.
  EXPECT_FALSE(seeker->Advance(index, offset, PageCursor{1, 17}, 0));
  seeker->LoadPagesUpTo(1);
  EXPECT_TRUE(seeker->Advance(index, offset, PageCursor{1, 17}, 0));
  EXPECT_EQ(index, 1u);
  EXPECT_EQ(offset, 17u);
}

TEST_F(BaseHeadFileSeekerTest, ValidationNeedsARealPageAndANonEmptyRange) {
  RefPtr<HeadFileSeeker> seeker = ChainOf(100);
  EXPECT_TRUE(seeker->ValidatePage(0));
  EXPECT_FALSE(seeker->ValidatePage(1));
}

}  // namespace
}  // namespace Tovrel
