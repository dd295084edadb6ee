#include "package/PackageVerifier.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "pagefile/PageGeometry.h"
#include "support/PackagePatch.h"
#include "support/PackageTesting.h"
#include "support/TempDir.h"

namespace Tovrel {
namespace {

using Testing::PackagePatch;
using Testing::PackageTesting;
using Testing::TempDir;

constexpr std::uint64_t kStreamBytes = 3 * kPageSize + 100 + 2 * kPageSize + 5000 + 3000;

// Stream 0: 3 whole pages and a 100-byte tail; stream 1: 2 whole pages;
// streams 2 and 3: tails of 5,000 and 3,000 bytes. Child file 0 holds the
// tails of 0, 2 and 3 at bytes 0, 100 and 5,100 (8,100 bytes in use).
// Each test damages one thing, so that the package still opens, and
// checks that the verifier names the damage.
class PackageVerifierTest : public testing::Test {
 protected:
  void SetUp() override {
    PackageTesting::MakeFile(path_, {3 * kPageSize + 100, 2 * kPageSize, 5000, 3000}, 40);
    const PackagePatch patch(file_);
    firstPageA_ = patch.Get(patch.Stream(0, PackagePatch::kFirstPage));
    firstPageB_ = patch.Get(patch.Stream(1, PackagePatch::kFirstPage));
    secondPageA_ = patch.Get(patch.Link(firstPageA_));
    thirdPageA_ = patch.Get(patch.Link(secondPageA_));
  }

  PackageVerifier::FileReport Verify() const { return PackageVerifier::VerifyFile(path_.c_str()); }

  // The file is checked and a problem starts with each of `problems`.
  void ExpectProblems(const std::vector<std::string>& problems) const {
    ExpectProblemsIn(Verify(), problems);
  }

  static void ExpectProblemsIn(const PackageVerifier::FileReport& report, const std::vector<std::string>& problems) {
    ASSERT_EQ(report.outcome, PackageVerifier::Outcome::kChecked);
    EXPECT_FALSE(report.IsSound());
    for (const std::string& problem : problems) {
      EXPECT_TRUE(std::any_of(report.problems.begin(), report.problems.end(),
                              [&](const std::string& found) { return found.rfind(problem, 0) == 0; }))
          << "missing: " << problem << "\n"
          << Lines(report.problems);
    }
  }

  static std::string Lines(const std::vector<std::string>& problems) {
    std::string text;
    for (const std::string& problem : problems) text += problem + "\n";
    return text;
  }

  TempDir dir_;
  std::wstring path_ = dir_.File("bad.pkg");
  std::filesystem::path file_ = dir_.Path() / "bad.pkg";
  std::uint64_t firstPageA_ = 0;
  std::uint64_t secondPageA_ = 0;
  std::uint64_t thirdPageA_ = 0;
  std::uint64_t firstPageB_ = 0;
};

TEST_F(PackageVerifierTest, TheUndamagedPackageIsSound) {
  const PackageVerifier::FileReport report = Verify();
  EXPECT_EQ(report.outcome, PackageVerifier::Outcome::kChecked);
  EXPECT_TRUE(report.problems.empty()) << Lines(report.problems);
  EXPECT_TRUE(report.IsSound());
  EXPECT_EQ(report.pagesChecked, std::filesystem::file_size(file_) / kPageSize);
  EXPECT_EQ(report.bytesRead, kStreamBytes);
  EXPECT_TRUE(report.everyStreamRead);
}

TEST_F(PackageVerifierTest, APageInTwoStreamsChains) {
  PackagePatch patch(file_);
  patch.Set(patch.Stream(1, PackagePatch::kFirstPage), firstPageA_).Save();
  ExpectProblems({"page " + std::to_string(firstPageA_) + " belongs to both stream 0 and stream 1",
                  "pages " + std::to_string(firstPageB_) + " to " + std::to_string(firstPageB_ + 1) +
                      " are marked in use but belong to nothing"});
}

TEST_F(PackageVerifierTest, APageInUseThatBelongsToNothing) {
  PackageTesting::RemoveFromFile(path_, 1);
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
  PackageTesting::MakeFile(dir_.File("cut.pkg"), {3 * kPageSize});
  const std::uint64_t size = std::filesystem::file_size(cut);
  std::filesystem::resize_file(cut, size - kPageSize);
  const PackagePatch patch(cut);
  const std::uint64_t last = kFirstPageId + size / kPageSize - 1;
  ASSERT_EQ(patch.Get(patch.Stream(0, PackagePatch::kFirstPage)) + 2, last);
  const PackageVerifier::FileReport report = PackageVerifier::VerifyFile(dir_.File("cut.pkg").c_str());
  ExpectProblemsIn(report, {"page " + std::to_string(last) + " of stream 0 lies past the end of the file (" +
                                std::to_string(size - kPageSize) + " bytes)",
                            "stream 0 "});
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
  PackageTesting::RemoveFromFile(path_, 1);
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


TEST_F(PackageVerifierTest, AMissingFileIsReportedAndNotMade) {
  const std::wstring missing = dir_.File("missing.pkg");
  const PackageVerifier::FileReport report = PackageVerifier::VerifyFile(missing.c_str());
  EXPECT_EQ(report.outcome, PackageVerifier::Outcome::kNoFile);
  EXPECT_TRUE(report.problems.empty());
  EXPECT_FALSE(report.IsSound());
  EXPECT_FALSE(std::filesystem::exists(dir_.Path() / "missing.pkg"));
  EXPECT_EQ(PackageVerifier::VerifyFile(nullptr).outcome, PackageVerifier::Outcome::kNoFile);
}

TEST_F(PackageVerifierTest, AFileWhoseHeadIsDamagedIsNoPackage) {
  std::vector<std::uint8_t> bytes = TempDir::ReadAll(path_);
  for (int i = 0; i < 8; ++i) bytes[i] = static_cast<std::uint8_t>(~bytes[i]);  // the head chain's page count
  TempDir::WriteAll(path_, bytes);
  const PackageVerifier::FileReport report = Verify();
  EXPECT_EQ(report.outcome, PackageVerifier::Outcome::kNotAPackage);
  EXPECT_TRUE(report.problems.empty());
  EXPECT_FALSE(report.IsSound());
  EXPECT_EQ(TempDir::ReadAll(path_), bytes);
}

TEST_F(PackageVerifierTest, AFileIsNeverWritten) {
  PackagePatch patch(file_);
  patch.Set(patch.Stream(1, PackagePatch::kFirstPage), firstPageA_).Save();
  const std::vector<std::uint8_t> damaged = TempDir::ReadAll(path_);
  ASSERT_FALSE(Verify().IsSound());
  EXPECT_EQ(TempDir::ReadAll(path_), damaged);
}

TEST_F(PackageVerifierTest, APackageHeldOpenIsCheckedAsItsFileIs) {
  PackagePatch patch(file_);
  patch.Set(patch.Tail(2, PackagePatch::kTailOffset), 5000).Save();
  const std::vector<std::string> fromFile = Verify().problems;
  PagedFilePackage::LoadFailure why = PagedFilePackage::LoadFailure::kNone;
  RefPtr<PagedFilePackage> package = PagedFilePackage::Open(PackageTesting::Config(path_), &why);
  ASSERT_TRUE(package);
  PackageVerifier verifier(*package, package->GetFileLength());
  const std::vector<std::string> problems = verifier.Run();
  EXPECT_FALSE(problems.empty());
  EXPECT_EQ(problems, fromFile);
  EXPECT_EQ(verifier.Run(), problems);  // a second run finds the same
  EXPECT_EQ(verifier.PagesChecked(), std::filesystem::file_size(file_) / kPageSize);
}

TEST_F(PackageVerifierTest, ProgressGoesFromNothingToEveryByteStreamByStream) {
  std::vector<std::pair<std::uint64_t, std::uint64_t>> told;
  const PackageVerifier::FileReport report = PackageVerifier::VerifyFile(
      path_.c_str(), [&](std::uint64_t done, std::uint64_t total) { told.emplace_back(done, total); });
  EXPECT_TRUE(report.IsSound()) << Lines(report.problems);
  ASSERT_EQ(told.size(), 5u);  // before the first stream, then after each of the four
  EXPECT_EQ(told.front(), std::make_pair(std::uint64_t{0}, kStreamBytes));
  EXPECT_EQ(told[1].first, 3 * kPageSize + 100);
  EXPECT_EQ(told.back(), std::make_pair(kStreamBytes, kStreamBytes));
  for (std::size_t i = 1; i < told.size(); ++i) EXPECT_LT(told[i - 1].first, told[i].first) << i;
}

TEST_F(PackageVerifierTest, AReadLimitLeavesStreamsUnreadWithoutAProblem) {
  const PackageVerifier::FileReport report = PackageVerifier::VerifyFile(path_.c_str(), nullptr, 2 * kPageSize);
  EXPECT_TRUE(report.IsSound()) << Lines(report.problems);
  EXPECT_EQ(report.bytesRead, 2 * kPageSize);
  EXPECT_FALSE(report.everyStreamRead);
  const PackageVerifier::FileReport exact = PackageVerifier::VerifyFile(path_.c_str(), nullptr, kStreamBytes);
  EXPECT_EQ(exact.bytesRead, kStreamBytes);
  EXPECT_TRUE(exact.everyStreamRead);
}

TEST_F(PackageVerifierTest, AReadLimitStillLetsTheTablesBeChecked) {
  PackagePatch patch(file_);
  patch.Set(patch.Tail(2, PackagePatch::kTailOffset), 9000).Save();
  const PackageVerifier::FileReport report = PackageVerifier::VerifyFile(path_.c_str(), nullptr, 0);
  ExpectProblemsIn(report, {"child file 0: bytes 5100 to 8999 lie unused between its tails"});
  EXPECT_EQ(report.bytesRead, 0u);
  EXPECT_FALSE(report.everyStreamRead);
  for (const std::string& problem : report.problems) EXPECT_EQ(problem.find("cannot be opened"), std::string::npos);
}

}  // namespace
}  // namespace Tovrel
