#include "PackageCommands.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "ExitStatus.h"
#include "pagefile/RollbackJournal.h"
#include "tovrel/FilePackage.h"
#include "TextFormat.h"
#include "platform/PlatformProcess.h"
#include "support/ChildLauncher.h"
#include "support/ChildProcess.h"
#include "support/PackagePatch.h"
#include "support/PackageTesting.h"
#include "support/TempDir.h"
#include "tool/ToolTesting.h"

namespace Tovrel {
namespace Tool {
namespace {

using Testing::PackagePatch;
using Testing::PackageTesting;
using Testing::TempDir;
using Testing::ToolTesting;

// Streams of 1 byte, one whole page, a page and a byte, and 20,000 bytes,
// with 40 bytes of user data.
class PackageCommandsTest : public testing::Test {
 protected:
  void SetUp() override { ids_ = ToolTesting::MakePackage(file_, {1, 8192, 8193, 20000}, 40); }

  ToolTesting::Result Run(const std::string& command, const std::vector<std::string>& more = {}) const {
    return ToolTesting::RunOn("package", command, file_, more);
  }

  TempDir dir_;
  std::filesystem::path file_ = dir_.Path() / "good.pkg";
  std::vector<std::uint64_t> ids_;
};

TEST_F(PackageCommandsTest, InfoReportsTheFilesSizesAndCounts) {
  const ToolTesting::Result result = Run("info");
  EXPECT_EQ(result.status, ExitStatus::kOk);
  EXPECT_EQ(result.err, "");
  EXPECT_TRUE(ToolTesting::Contains(result.out, "streams      4, holding 36,386 bytes")) << result.out;
  EXPECT_TRUE(ToolTesting::Contains(result.out, "child files  1 of 64 KiB, 3,618 bytes used")) << result.out;
  EXPECT_TRUE(ToolTesting::Contains(result.out, "user data    40 bytes")) << result.out;
  EXPECT_TRUE(ToolTesting::Contains(result.out, "on 1 page\n")) << result.out;
}

TEST_F(PackageCommandsTest, InfoAsJsonHoldsTheSameFigures) {
  const ToolTesting::Result result = Run("info", {"--json"});
  EXPECT_EQ(result.status, ExitStatus::kOk);
  const nlohmann::json json = nlohmann::json::parse(result.out);
  EXPECT_EQ(json.at("fileBytes").get<std::uint64_t>(), std::filesystem::file_size(file_));
  EXPECT_EQ(json.at("streams").at("count"), 4);
  EXPECT_EQ(json.at("streams").at("sizeBytes"), 36386);
  EXPECT_EQ(json.at("childFiles").at("count"), 1);
  EXPECT_EQ(json.at("childFiles").at("usedBytes"), 3618);
  EXPECT_EQ(json.at("childFiles").at("freeBytes"), 65536 - 3618);
  EXPECT_EQ(json.at("childFiles").at("filledByQuarter"), nlohmann::json::array({1, 0, 0, 0}));
  EXPECT_FALSE(json.at("childFiles").contains("list"));
  EXPECT_EQ(json.at("headStream").at("pages"), 1);
  EXPECT_EQ(json.at("userDataBytes"), 40);
  EXPECT_TRUE(json.at("journal").is_null());
  const nlohmann::json listed = nlohmann::json::parse(Run("info", {"--json", "--child-files"}).out);
  ASSERT_EQ(listed.at("childFiles").at("list").size(), 1u);
  EXPECT_EQ(listed.at("childFiles").at("list")[0],
            nlohmann::json({{"id", 0}, {"usedBytes", 3618}, {"freeBytes", 65536 - 3618}, {"tails", 3}}));
  const ToolTesting::Result text = Run("info", {"--child-files"});
  EXPECT_TRUE(ToolTesting::Contains(text.out, "  child 0     3,618 bytes used, 3 tails\n")) << text.out;
}

TEST_F(PackageCommandsTest, LsShowsOneLinePerStreamWithItsTail) {
  const ToolTesting::Result result = Run("ls");
  EXPECT_EQ(result.status, ExitStatus::kOk);
  EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 5);
  EXPECT_TRUE(ToolTesting::Contains(result.out, "       1         8192       1")) << result.out;
  EXPECT_TRUE(ToolTesting::Contains(result.out, "child 0 at 0, 1 bytes")) << result.out;
  EXPECT_TRUE(ToolTesting::Contains(result.out, "child 0 at 1, 1 bytes")) << result.out;
  EXPECT_TRUE(ToolTesting::Contains(result.out, "       3        20000       2")) << result.out;
}

TEST_F(PackageCommandsTest, LsAsJsonListsEveryStream) {
  const ToolTesting::Result result = Run("ls", {"--json"});
  EXPECT_EQ(result.status, ExitStatus::kOk);
  const nlohmann::json json = nlohmann::json::parse(result.out);
  ASSERT_EQ(json.size(), 4u);
  EXPECT_EQ(json[0].at("sizeBytes"), 1);
  EXPECT_TRUE(json[0].at("firstPage").is_null());  // no whole page: "-" in the text
  EXPECT_EQ(json[1].at("wholePages"), 1);
  EXPECT_TRUE(json[1].at("tail").is_null());       // no tail: "-" in the text
  EXPECT_EQ(json[3].at("id"), 3);
  EXPECT_EQ(json[3].at("sizeBytes"), 20000);
  EXPECT_EQ(json[3].at("wholePages"), 2);
  EXPECT_TRUE(json[3].at("firstPage").is_number());
  EXPECT_EQ(json[3].at("tail").at("offset"), 2);
  EXPECT_EQ(json[3].at("tail").at("sizeBytes"), 3616);
  EXPECT_EQ(json[3].at("tail").at("childFile"), 0);
}

TEST_F(PackageCommandsTest, CatWritesAStreamsBytesExactly) {
  const ToolTesting::Result result = Run("cat", {std::to_string(ids_[3])});
  EXPECT_EQ(result.status, ExitStatus::kOk);
  const std::vector<std::uint8_t> expected = PackageTesting::Bytes(20000, 4);
  EXPECT_EQ(result.out, std::string(expected.begin(), expected.end()));
}

TEST_F(PackageCommandsTest, CatWritesToATerminalOnlyWhenForced) {
  const std::string id = std::to_string(ids_[3]);
  const ToolTesting::Result refused = ToolTesting::RunOnTerminal({"package", "cat", ToolTesting::Utf8(file_), id});
  EXPECT_EQ(refused.status, ExitStatus::kUsage);
  EXPECT_EQ(refused.out, "");
  EXPECT_EQ(refused.err,
            "tovrel: not writing binary bytes to a terminal (send them to a file or a pipe, or add --force) "
            "(see \"tovrel package cat --help\")\n");
  const ToolTesting::Result forced =
      ToolTesting::RunOnTerminal({"package", "cat", ToolTesting::Utf8(file_), id, "--force"});
  EXPECT_EQ(forced.status, ExitStatus::kOk);
  const std::vector<std::uint8_t> expected = PackageTesting::Bytes(20000, 4);
  EXPECT_EQ(forced.out, std::string(expected.begin(), expected.end()));
}

TEST_F(PackageCommandsTest, AFileTooShortToBeAPackageIsSaidInPlainWords) {
  const std::filesystem::path tiny = dir_.Path() / "tiny.pkg";
  TempDir::WriteAll(tiny.wstring(), std::vector<std::uint8_t>(100, 0x41));
  const ToolTesting::Result result = ToolTesting::RunOn("package", "info", tiny);
  EXPECT_EQ(result.status, ExitStatus::kUnreadable);
  EXPECT_TRUE(ToolTesting::Contains(result.err, "tiny.pkg: not a package file (too short")) << result.err;
}

TEST_F(PackageCommandsTest, CompactShrinksTheFileAndKeepsEveryStream) {
  std::vector<std::vector<std::uint8_t>> kept;
  std::vector<std::uint64_t> keptIds;
  {
    RefPtr<IDataStreamSet> package = OpenFilePackage(PackageTesting::Config(file_.wstring()));
    ASSERT_TRUE(package);
    for (std::uint32_t i = 0; i < 12; ++i) PackageTesting::CreateFilled(package, 3 * 8192 + 100 * i, 70 + i);
    for (std::uint64_t id : PackageTesting::Identifiers(package)) {
      if (id % 2 == 0) {
        ASSERT_TRUE(package->RemoveStream(id));
      } else {
        keptIds.push_back(id);
        kept.push_back(PackageTesting::ReadAll(package->OpenStream(id)));
      }
    }
  }
  const std::uint64_t before = std::filesystem::file_size(file_);
  const ToolTesting::Result result = Run("compact");
  ASSERT_EQ(result.status, ExitStatus::kOk) << result.err;
  const std::uint64_t after = std::filesystem::file_size(file_);
  EXPECT_LT(after, before);
  EXPECT_EQ(result.out, "compacted " + ToolTesting::Utf8(file_) + ": " + TextFormat::Bytes(before) + " before, " +
                            TextFormat::Bytes(after) + " after\n");
  RefPtr<IDataStreamSet> package = OpenFilePackage(PackageTesting::Config(file_.wstring()));
  ASSERT_TRUE(package);
  ASSERT_EQ(PackageTesting::Identifiers(package), keptIds);
  for (std::size_t i = 0; i < keptIds.size(); ++i) {
    EXPECT_EQ(PackageTesting::ReadAll(package->OpenStream(keptIds[i])), kept[i]) << keptIds[i];
  }
  package.Reset();
  // A second compaction has nothing left to do.
  const ToolTesting::Result again = Run("compact");
  EXPECT_EQ(again.status, ExitStatus::kOk);
  EXPECT_EQ(std::filesystem::file_size(file_), after);
  EXPECT_EQ(Run("compact", {"extra"}).status, ExitStatus::kUsage);
  EXPECT_EQ(ToolTesting::RunOn("package", "compact", dir_.Path() / "missing.pkg").status, ExitStatus::kUnreadable);
  EXPECT_FALSE(std::filesystem::exists(dir_.Path() / "missing.pkg"));
}

TEST_F(PackageCommandsTest, CatOfAStreamThatIsNotThereFails) {
  const ToolTesting::Result result = Run("cat", {"9"});
  EXPECT_EQ(result.status, ExitStatus::kFailed);
  EXPECT_EQ(result.out, "");
  EXPECT_TRUE(ToolTesting::Contains(result.err, "good.pkg: stream 9: no such stream")) << result.err;
  EXPECT_EQ(Run("cat", {"x"}).status, ExitStatus::kUsage);
}

TEST_F(PackageCommandsTest, VerifyWritesJsonWhenAsked) {
  const ToolTesting::Result result = Run("verify", {"--json"});
  EXPECT_EQ(result.status, ExitStatus::kOk);
  const nlohmann::json json = nlohmann::json::parse(result.out);
  EXPECT_TRUE(json.at("journal").is_null());
  EXPECT_TRUE(json.at("problems").is_array());
  EXPECT_TRUE(json.at("problems").empty());
  EXPECT_EQ(json.at("ok"), true);
  EXPECT_TRUE(ToolTesting::Contains(json.at("checked").get<std::string>(), "36,386 bytes read")) << result.out;
}

TEST_F(PackageCommandsTest, VerifyOfASoundPackageFindsNoProblem) {
  const ToolTesting::Result result = Run("verify");
  EXPECT_EQ(result.status, ExitStatus::kOk);
  EXPECT_TRUE(ToolTesting::Contains(result.out, "good.pkg: no problem found (")) << result.out;
  EXPECT_TRUE(ToolTesting::Contains(result.out, "36,386 bytes read")) << result.out;
}

// The checks themselves are PackageVerifier's (its tests damage a package
// in every way it finds); here, how the command reports what it finds.
TEST_F(PackageCommandsTest, VerifyPrintsEachProblemFoundAndTheirCount) {
  PackagePatch patch(file_);
  patch.Set(patch.ChildFile(0, PackagePatch::kChildFreeBytes), 65536 - 3628).Save();
  const std::string problem = "child file 0: its tails end at byte 3618, but its record counts 3628 bytes in use";
  const ToolTesting::Result result = Run("verify");
  EXPECT_EQ(result.status, ExitStatus::kFailed);
  const std::string name = ToolTesting::Utf8(file_);
  EXPECT_EQ(result.out, name + ": " + problem + "\n" + name + ": 1 problem\n");
  EXPECT_EQ(result.err, "");
  const ToolTesting::Result json = Run("verify", {"--json"});
  EXPECT_EQ(json.status, ExitStatus::kFailed);
  const nlohmann::json parsed = nlohmann::json::parse(json.out);
  EXPECT_EQ(parsed.at("problems"), nlohmann::json::array({problem}));
  EXPECT_EQ(parsed.at("ok"), false);
}

TEST_F(PackageCommandsTest, EveryCommandRefusesAMissingFileWithoutMakingIt) {
  const std::filesystem::path missing = dir_.Path() / "missing.pkg";
  for (const std::string command : {"info", "ls", "cat", "verify"}) {
    std::vector<std::string> words{"package", command, ToolTesting::Utf8(missing)};
    if (command == "cat") words.push_back("0");
    const ToolTesting::Result result = ToolTesting::Run(words);
    EXPECT_EQ(result.status, ExitStatus::kUnreadable) << command;
    EXPECT_TRUE(ToolTesting::Contains(result.err, "missing.pkg: no such file")) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_FALSE(std::filesystem::exists(missing)) << command;
  }
}

TEST_F(PackageCommandsTest, EveryCommandRefusesAFileWhoseHeadIsDamaged) {
  ToolTesting::FlipBytes(file_, 0, 8);  // the head chain's page count
  for (const std::string command : {"info", "ls", "cat", "verify"}) {
    const ToolTesting::Result result = Run(command, command == "cat" ? std::vector<std::string>{"0"}
                                                                      : std::vector<std::string>{});
    EXPECT_EQ(result.status, ExitStatus::kUnreadable) << command;
    EXPECT_TRUE(ToolTesting::Contains(result.err, "good.pkg: not a package")) << result.err;
  }
}

TEST_F(PackageCommandsTest, AFolderOrAnEmptyFileIsNoPackage) {
  EXPECT_TRUE(ToolTesting::Contains(ToolTesting::Run({"package", "info", ToolTesting::Utf8(dir_.Path())}).err,
                                    "is a folder, not a package file"));
  const std::filesystem::path empty = dir_.Path() / "empty.pkg";
  { std::ofstream touch(empty); }
  const ToolTesting::Result result = ToolTesting::Run({"package", "verify", ToolTesting::Utf8(empty)});
  EXPECT_EQ(result.status, ExitStatus::kUnreadable);
  EXPECT_TRUE(ToolTesting::Contains(result.err, "empty.pkg: empty file")) << result.err;
}

TEST_F(PackageCommandsTest, AWrongCommandLineIsAUsageError) {
  EXPECT_EQ(ToolTesting::Run({"package", "info"}).status, ExitStatus::kUsage);
  EXPECT_EQ(ToolTesting::Run({"package", "info", "a", "b"}).status, ExitStatus::kUsage);
  EXPECT_EQ(ToolTesting::Run({"package", "frob", "a"}).status, ExitStatus::kUsage);
  EXPECT_EQ(ToolTesting::Run({"package", "ls", "a", "--long"}).status, ExitStatus::kUsage);
  EXPECT_EQ(ToolTesting::Run({"package"}).status, ExitStatus::kUsage);
}

TEST_F(PackageCommandsTest, HelpAtEveryLevel) {
  const ToolTesting::Result group = ToolTesting::Run({"package", "--help"});
  EXPECT_EQ(group.status, ExitStatus::kOk);
  for (const char* command : {"info", "ls", "cat", "verify"}) {
    EXPECT_TRUE(ToolTesting::Contains(group.out, std::string("\n  ") + command + " ")) << command;
    const ToolTesting::Result leaf = ToolTesting::Run({"package", command, "--help"});
    EXPECT_EQ(leaf.status, ExitStatus::kOk);
    EXPECT_TRUE(ToolTesting::Contains(leaf.out, std::string("usage: tovrel package ") + command)) << leaf.out;
  }
  EXPECT_TRUE(ToolTesting::Contains(ToolTesting::Run({"package", "verify", "-h"}).out, "exit status: 0"));
}

// A process that rewrites every stream of a package through a two-page
// cache (so that changed pages reach the file) and dies before it saves.
TOVREL_CHILD_ROLE(interrupted_save) {
  if (argc != 1) return 2;
  const std::wstring path = Testing::ChildLauncher::Wide(argv[0]);
  RefPtr<IDataStreamSet> package = OpenFilePackage(PackageTesting::Config(path, 2));
  if (!package) return 3;
  for (std::uint64_t id : PackageTesting::Identifiers(package)) {
    const RefPtr<IDataStream> stream = package->OpenStream(id);
    if (stream) PackageTesting::WriteAll(stream, std::vector<std::uint8_t>(stream->GetSize(), 0xEE));
  }
  PlatformProcess::ExitNow(0);
}

TEST_F(PackageCommandsTest, AJournalLeftByAnInterruptedSaveIsReportedAndTheFileCheckedAsTheRollbackWillLeaveIt) {
  const std::vector<std::uint8_t> saved = ToolTesting::ReadFile(file_);
  auto child = Testing::ChildLauncher::Start("interrupted_save", {ToolTesting::Utf8(file_)});
  ASSERT_NE(child, nullptr);
  ASSERT_EQ(Testing::ChildLauncher::Finish(*child), 0);
  const std::filesystem::path journal = RollbackJournal::PathFor(file_.wstring());
  ASSERT_TRUE(std::filesystem::exists(journal));
  const std::vector<std::uint8_t> interrupted = ToolTesting::ReadFile(file_);
  ASSERT_NE(interrupted, saved);
  const std::vector<std::uint8_t> journalBytes = ToolTesting::ReadFile(journal);

  const ToolTesting::Result verify = Run("verify");
  EXPECT_EQ(verify.status, ExitStatus::kOk) << verify.out;
  EXPECT_TRUE(ToolTesting::Contains(verify.out, "an interrupted save will be rolled back when the library next opens it"))
      << verify.out;
  EXPECT_TRUE(ToolTesting::Contains(verify.out, "no problem found")) << verify.out;
  const ToolTesting::Result info = Run("info");
  EXPECT_TRUE(ToolTesting::Contains(info.out, "journal      an interrupted save will be rolled back")) << info.out;
  const ToolTesting::Result cat = Run("cat", {std::to_string(ids_[3])});
  EXPECT_EQ(std::vector<std::uint8_t>(cat.out.begin(), cat.out.end()), PackageTesting::Bytes(20000, 4));
  // The tool wrote nothing: both files are as the dead process left them.
  EXPECT_EQ(ToolTesting::ReadFile(file_), interrupted);
  EXPECT_EQ(ToolTesting::ReadFile(journal), journalBytes);

  // The library's next open rolls the save back.
  RefPtr<IDataStreamSet> package = OpenFilePackage(PackageTesting::Config(file_.wstring()));
  ASSERT_TRUE(package);
  package.Reset();
  EXPECT_EQ(ToolTesting::ReadFile(file_), saved);
  EXPECT_FALSE(std::filesystem::exists(journal));
}

}  // namespace
}  // namespace Tool
}  // namespace Tovrel
