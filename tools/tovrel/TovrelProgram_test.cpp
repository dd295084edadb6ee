// The built tovrel program, run as a process of its own: its exit
// statuses, its messages and the exact bytes it writes to standard output.
#include "TovrelTool.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "ExitStatus.h"
#include "support/PackageTesting.h"
#include "support/TempDir.h"
#include "tool/PackagePatch.h"
#include "tool/ToolTesting.h"

namespace Tovrel {
namespace Tool {
namespace {

namespace fs = std::filesystem;
using Testing::PackagePatch;
using Testing::PackageTesting;
using Testing::TempDir;
using Testing::ToolTesting;

TEST(TovrelProgramTest, HelpEndsWithZeroAndNoCommandWithAUsageError) {
  TempDir dir;
  const ToolTesting::Result help = ToolTesting::RunProgram({"--help"}, dir.Path());
  EXPECT_EQ(help.status, ExitStatus::kOk);
  EXPECT_TRUE(ToolTesting::Contains(help.out, "usage: tovrel COMMAND")) << help.out;
  const ToolTesting::Result none = ToolTesting::RunProgram({}, dir.Path());
  EXPECT_EQ(none.status, ExitStatus::kUsage);
  EXPECT_EQ(none.out, "");
  EXPECT_TRUE(ToolTesting::Contains(none.err, "usage: tovrel COMMAND")) << none.err;
  const ToolTesting::Result unknown = ToolTesting::RunProgram({"frob"}, dir.Path());
  EXPECT_EQ(unknown.status, ExitStatus::kUsage);
  EXPECT_TRUE(ToolTesting::Contains(unknown.err, "tovrel: unknown command \"tovrel frob\"")) << unknown.err;
}

TEST(TovrelProgramTest, CatWritesTheStreamsBytesUnchanged) {
  TempDir dir;
  const fs::path file = dir.Path() / "p.pkg";
  const std::vector<std::uint64_t> ids = ToolTesting::MakePackage(file, {100, 30000});
  const ToolTesting::Result result =
      ToolTesting::RunProgram({"package", "cat", ToolTesting::Utf8(file), std::to_string(ids[1])}, dir.Path());
  EXPECT_EQ(result.status, ExitStatus::kOk) << result.err;
  const std::vector<std::uint8_t> expected = PackageTesting::Bytes(30000, 2);
  EXPECT_EQ(result.out, std::string(expected.begin(), expected.end()));
}

TEST(TovrelProgramTest, VerifyEndsWithZeroOneOrTwo) {
  TempDir dir;
  const fs::path file = dir.Path() / "p.pkg";
  ToolTesting::MakePackage(file, {100, 30000});
  const std::vector<std::string> verify{"package", "verify", ToolTesting::Utf8(file)};
  EXPECT_EQ(ToolTesting::RunProgram(verify, dir.Path()).status, ExitStatus::kOk);
  PackagePatch patch(file);
  patch.Set(patch.Stream(1, PackagePatch::kWholePages), 2).Save();
  const ToolTesting::Result damaged = ToolTesting::RunProgram(verify, dir.Path());
  EXPECT_EQ(damaged.status, ExitStatus::kFailed);
  EXPECT_TRUE(ToolTesting::Contains(damaged.out, "p.pkg: stream 1: its entry records 2 whole pages")) << damaged.out;
  ToolTesting::FlipBytes(file, 0, 8);
  const ToolTesting::Result unreadable = ToolTesting::RunProgram(verify, dir.Path());
  EXPECT_EQ(unreadable.status, ExitStatus::kUnreadable);
  EXPECT_TRUE(ToolTesting::Contains(unreadable.err, "tovrel: ")) << unreadable.err;
  EXPECT_TRUE(ToolTesting::Contains(unreadable.err, "p.pkg: not a package")) << unreadable.err;
  const ToolTesting::Result missing =
      ToolTesting::RunProgram({"package", "verify", ToolTesting::Utf8(dir.Path() / "none.pkg")}, dir.Path());
  EXPECT_EQ(missing.status, ExitStatus::kUnreadable);
  EXPECT_TRUE(ToolTesting::Contains(missing.err, "none.pkg: no such file")) << missing.err;
}

TEST(TovrelProgramTest, EffectsPutThenGetGiveBackTheBytes) {
  TempDir dir;
  const fs::path folder = dir.Path() / "fxcache";
  fs::create_directory(folder);
  const fs::path input = dir.Path() / "in.bin";
  const std::vector<std::uint8_t> bytes = PackageTesting::Bytes(5000, 9);
  { std::ofstream(input, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size()); }
  const ToolTesting::Result put = ToolTesting::RunProgram(
      {"effects", "put", ToolTesting::Utf8(folder), "fx/\xC3\xA9t\xC3\xA9", ToolTesting::Utf8(input)}, dir.Path());
  EXPECT_EQ(put.status, ExitStatus::kOk) << put.err;
  const ToolTesting::Result get =
      ToolTesting::RunProgram({"effects", "get", ToolTesting::Utf8(folder), "fx/\xC3\xA9t\xC3\xA9"}, dir.Path());
  EXPECT_EQ(get.status, ExitStatus::kOk) << get.err;
  EXPECT_EQ(get.out, std::string(bytes.begin(), bytes.end()));
  const ToolTesting::Result list = ToolTesting::RunProgram({"effects", "list", ToolTesting::Utf8(folder)}, dir.Path());
  EXPECT_TRUE(ToolTesting::Contains(list.out, " fx/\xC3\xA9t\xC3\xA9\n")) << list.out;
}

TEST(TovrelProgramTest, TheDemoRunsColdThenWarmAsTwoProcesses) {
  TempDir dir;
  const std::vector<std::string> demo{"demo", ToolTesting::Utf8(dir.Path() / "fx"), "--effects", "20", "--work", "100"};
  const ToolTesting::Result cold = ToolTesting::RunProgram(demo, dir.Path());
  EXPECT_EQ(cold.status, ExitStatus::kOk) << cold.err;
  EXPECT_TRUE(ToolTesting::Contains(cold.out, "run 1 (cold): 0 hits, 20 misses")) << cold.out;
  EXPECT_EQ(cold.err, "");
  const ToolTesting::Result warm = ToolTesting::RunProgram(demo, dir.Path());
  EXPECT_EQ(warm.status, ExitStatus::kOk) << warm.err;
  EXPECT_TRUE(ToolTesting::Contains(warm.out, "run 2 (warm): 20 hits, 0 misses")) << warm.out;
  EXPECT_TRUE(ToolTesting::Contains(warm.out, "times faster")) << warm.out;
}

}  // namespace
}  // namespace Tool
}  // namespace Tovrel
