#include "PackageVerifier.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "ExitStatus.h"
#include "pagefile/PageGeometry.h"
#include "support/PackagePatch.h"
#include "support/TempDir.h"
#include "tool/ToolTesting.h"

namespace Tovrel {
namespace Tool {
namespace {

using Testing::PackagePatch;
using Testing::TempDir;
using Testing::ToolTesting;

// Stream 0: 3 whole pages and a 100-byte tail; stream 1: 2 whole pages;
// streams 2 and 3: tails of 5,000 and 3,000 bytes. Child file 0 holds the
// tails of 0, 2 and 3 at bytes 0, 100 and 5,100 (8,100 bytes in use).
// Each test damages one thing, so that the package still opens, and
// checks that verify names the damage and ends with status 1.
class PackageVerifierTest : public testing::Test {
 protected:
  void SetUp() override {
    ToolTesting::MakePackage(file_, {3 * kPageSize + 100, 2 * kPageSize, 5000, 3000}, 40);
    const PackagePatch patch(file_);
    firstPageA_ = patch.Get(patch.Stream(0, PackagePatch::kFirstPage));
    firstPageB_ = patch.Get(patch.Stream(1, PackagePatch::kFirstPage));
    secondPageA_ = patch.Get(patch.Link(firstPageA_));
    thirdPageA_ = patch.Get(patch.Link(secondPageA_));
  }

  ToolTesting::Result Verify() const {
    return ToolTesting::Run({"package", "verify", ToolTesting::Utf8(file_)});
  }

  // Verify ends with status 1 and names every one of `problems`.
  void ExpectProblems(const std::vector<std::string>& problems) const {
    const ToolTesting::Result result = Verify();
    EXPECT_EQ(result.status, ExitStatus::kFailed) << result.out << result.err;
    for (const std::string& problem : problems) {
      EXPECT_TRUE(ToolTesting::Contains(result.out, "bad.pkg: " + problem)) << "missing: " << problem << "\n"
                                                                             << result.out;
    }
    EXPECT_TRUE(ToolTesting::Contains(result.out, " problem")) << result.out;
  }

  TempDir dir_;
  std::filesystem::path file_ = dir_.Path() / "bad.pkg";
  std::uint64_t firstPageA_ = 0;
  std::uint64_t secondPageA_ = 0;
  std::uint64_t thirdPageA_ = 0;
  std::uint64_t firstPageB_ = 0;
};

TEST_F(PackageVerifierTest, TheUndamagedPackageIsSound) {
  const ToolTesting::Result result = Verify();
  EXPECT_EQ(result.status, ExitStatus::kOk) << result.out;
  EXPECT_TRUE(ToolTesting::Contains(result.out, "no problem found")) << result.out;
}

TEST_F(PackageVerifierTest, APageInTwoStreamsChains) {
  PackagePatch patch(file_);
  patch.Set(patch.Stream(1, PackagePatch::kFirstPage), firstPageA_).Save();
  ExpectProblems({"page " + std::to_string(firstPageA_) + " belongs to both stream 0 and stream 1",
                  "pages " + std::to_string(firstPageB_) + " to " + std::to_string(firstPageB_ + 1) +
                      " are marked in use but belong to nothing"});
}

TEST_F(PackageVerifierTest, APageInUseThatBelongsToNothing) {
  ToolTesting::RemoveStream(file_, 1);
  PackagePatch patch(file_);
  ASSERT_EQ(patch.Get(patch.Link(firstPageB_)), 1u);  // freed
  patch.Set(patch.Link(firstPageB_), 0).Save();
  ExpectProblems({"page " + std::to_string(firstPageB_) + " is marked in use but belongs to nothing"});
}

TEST_F(PackageVerifierTest, APageOfAStreamMarkedFree) {
  PackagePatch patch(file_);
  patch.Set(patch.Link(thirdPageA_), 1).Save();
  ExpectProblems({"page " + std::to_string(thirdPageA_) + " of stream 0 is marked free in the allocation table"});
}

TEST_F(PackageVerifierTest, AChainShorterThanItsEntrySays) {
  PackagePatch patch(file_);
  patch.Set(patch.Link(secondPageA_), 0).Save();
  ExpectProblems({"stream 0: its chain has 2 pages, but its entry records 3",
                  "page " + std::to_string(thirdPageA_) + " is marked in use but belongs to nothing"});
}

TEST_F(PackageVerifierTest, WholePagesThatDisagreeWithTheSize) {
  PackagePatch patch(file_);
  patch.Set(patch.Stream(1, PackagePatch::kWholePages), 3).Save();
  ExpectProblems({"stream 1: its entry records 3 whole pages, but its size of 16384 bytes makes 2",
                  "stream 1: its chain has 2 pages, but its entry records 3"});
}

TEST_F(PackageVerifierTest, OverlappingTails) {
  PackagePatch patch(file_);
  patch.Set(patch.Tail(2, PackagePatch::kTailOffset), 5000).Save();
  ExpectProblems({"child file 0: the tails of streams 2 (bytes 100 to 5099) and 3 (bytes 5000 to 7999) overlap"});
}

TEST_F(PackageVerifierTest, AGapBetweenTails) {
  PackagePatch patch(file_);
  patch.Set(patch.Tail(2, PackagePatch::kTailOffset), 5150);
  patch.Set(patch.ChildFile(0, PackagePatch::kChildFreeBytes), 65536 - 8150).Save();
  ExpectProblems({"child file 0: bytes 5100 to 5149 lie unused between its tails"});
}

TEST_F(PackageVerifierTest, TailsThatEndBeforeTheUsedBytes) {
  PackagePatch patch(file_);
  patch.Set(patch.ChildFile(0, PackagePatch::kChildFreeBytes), 65536 - 8110).Save();
  ExpectProblems({"child file 0: its tails end at byte 8100, but its record counts 8110 bytes in use"});
}

TEST_F(PackageVerifierTest, AStreamWhoseTailCannotBeRead) {
  PackagePatch patch(file_);
  patch.Set(patch.Tail(2, PackagePatch::kTailOffset), 9000).Save();
  ExpectProblems({"stream 3 cannot be opened: its tail does not lie in the used bytes of its child file"});
}

TEST_F(PackageVerifierTest, AStreamPastTheEndOfACutFile) {
  const std::filesystem::path cut = dir_.Path() / "cut.pkg";
  ToolTesting::MakePackage(cut, {3 * kPageSize});
  const std::uint64_t size = std::filesystem::file_size(cut);
  std::filesystem::resize_file(cut, size - kPageSize);
  const PackagePatch patch(cut);
  const std::uint64_t last = kFirstPageId + size / kPageSize - 1;
  ASSERT_EQ(patch.Get(patch.Stream(0, PackagePatch::kFirstPage)) + 2, last);
  const ToolTesting::Result result = ToolTesting::Run({"package", "verify", ToolTesting::Utf8(cut)});
  EXPECT_EQ(result.status, ExitStatus::kFailed);
  EXPECT_TRUE(ToolTesting::Contains(result.out, "page " + std::to_string(last) + " of stream 0 lies past the end"))
      << result.out;
  EXPECT_TRUE(ToolTesting::Contains(result.out, "cut.pkg: stream 0 ")) << result.out;
}

TEST_F(PackageVerifierTest, AChildFilePageThatAStreamOwns) {
  PackagePatch patch(file_);
  const std::uint64_t childPage2 = patch.Get(patch.ChildFile(0, PackagePatch::kChildPage0 + 2));
  const std::uint64_t childPage3 = patch.Get(patch.ChildFile(0, PackagePatch::kChildPage0 + 3));
  patch.Set(patch.ChildFile(0, PackagePatch::kChildPage0 + 3), firstPageB_).Save();
  ExpectProblems({"page " + std::to_string(firstPageB_) + " belongs to both stream 1 and child file 0",
                  "child file 0: page " + std::to_string(childPage2) + " links to " + std::to_string(childPage3) +
                      " in the allocation table, not to " + std::to_string(firstPageB_),
                  "page " + std::to_string(childPage3) + " is marked in use but belongs to nothing"});
}

TEST_F(PackageVerifierTest, ATailRecordOfNoStream) {
  PackagePatch patch(file_);
  patch.Set(patch.Tail(2, PackagePatch::kTailStream), 9).Save();
  ExpectProblems({"the tail record of stream 9 belongs to no stream",
                  "stream 3: its last 3000 bytes have no tail record"});
}

TEST_F(PackageVerifierTest, AHeadChainPageLinkedToAnotherPage) {
  ToolTesting::RemoveStream(file_, 1);
  PackagePatch patch(file_);
  patch.Set(patch.Link(kFirstPageId), firstPageB_).Save();
  ExpectProblems({"page 10 of the head chain links to " + std::to_string(firstPageB_) +
                  " in the allocation table, not to 0"});
}

TEST_F(PackageVerifierTest, AHeadStreamLongerThanItsSections) {
  PackagePatch patch(file_);
  patch.Set(patch.UserDataLength(), 30).Save();
  ExpectProblems({"the head stream holds "});
}

}  // namespace
}  // namespace Tool
}  // namespace Tovrel
