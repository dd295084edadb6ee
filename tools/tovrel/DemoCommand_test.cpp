#include "DemoCommand.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "ExitStatus.h"
#include "support/TempDir.h"
#include "tool/ToolTesting.h"

namespace Tovrel {
namespace Tool {
namespace {

namespace fs = std::filesystem;
using Testing::TempDir;
using Testing::ToolTesting;

// The demo on a few effects with little work per compile, so that it runs
// fast here; its figures are what the tests look at, not its times.
ToolTesting::Result Demo(const fs::path& folder, const std::string& effects = "30") {
  return ToolTesting::Run({"demo", ToolTesting::Utf8(folder), "--effects", effects, "--work", "100"});
}

TEST(DemoCommandTest, TheFirstRunCompilesEverythingAndTheSecondFindsEverything) {
  TempDir dir;
  const fs::path folder = dir.Path() / "made" / "fxcache";
  const ToolTesting::Result cold = Demo(folder);
  EXPECT_EQ(cold.status, ExitStatus::kOk) << cold.err;
  EXPECT_TRUE(ToolTesting::Contains(cold.out, "a host that needs 30 shader effects")) << cold.out;
  EXPECT_TRUE(ToolTesting::Contains(cold.out, "run 1 (cold): 0 hits, 30 misses, ")) << cold.out;
  EXPECT_TRUE(ToolTesting::Contains(cold.out, "cache file: 30 effects, ")) << cold.out;
  EXPECT_TRUE(ToolTesting::Contains(cold.out, "compression ratio 2.")) << cold.out;
  EXPECT_TRUE(ToolTesting::Contains(cold.out, "run the demo again")) << cold.out;
  const ToolTesting::Result warm = Demo(folder);
  EXPECT_EQ(warm.status, ExitStatus::kOk) << warm.err;
  EXPECT_TRUE(ToolTesting::Contains(warm.out, "run 2 (warm): 30 hits, 0 misses, ")) << warm.out;
  EXPECT_TRUE(ToolTesting::Contains(warm.out, "warm run over cold run 1: ")) << warm.out;
  EXPECT_TRUE(ToolTesting::Contains(warm.out, " times faster (")) << warm.out;
  const ToolTesting::Result verify = ToolTesting::RunOn("effects", "verify", folder);
  EXPECT_EQ(verify.status, ExitStatus::kOk) << verify.out;
  EXPECT_TRUE(ToolTesting::Contains(verify.out, "(30 effects)")) << verify.out;
}

TEST(DemoCommandTest, StatsCountTheHitsOfWarmRunsThatSaveNothing) {
  TempDir dir;
  const fs::path folder = dir.Path() / "fxcache";
  ASSERT_EQ(Demo(folder).status, ExitStatus::kOk);
  for (int run = 0; run < 3; ++run) {
    const ToolTesting::Result warm = Demo(folder);
    ASSERT_EQ(warm.status, ExitStatus::kOk) << warm.err;
    ASSERT_TRUE(ToolTesting::Contains(warm.out, "30 hits, 0 misses, ")) << warm.out;
  }
  const ToolTesting::Result stats = ToolTesting::RunOn("effects", "stats", folder);
  EXPECT_EQ(stats.status, ExitStatus::kOk) << stats.err;
  EXPECT_TRUE(ToolTesting::Contains(stats.out, "searches     90 hits, 30 misses (hit rate 75.0 %)")) << stats.out;
  const ToolTesting::Result zero = ToolTesting::Run({"effects", "stats", ToolTesting::Utf8(folder), "--zero"});
  EXPECT_EQ(zero.status, ExitStatus::kOk) << zero.err;
  EXPECT_TRUE(ToolTesting::Contains(zero.out, "searches     0 hits, 0 misses")) << zero.out;
}

TEST(DemoCommandTest, AHostSavingOnItsOwnThreadKeepsTheSameEffects) {
  TempDir dir;
  const fs::path folder = dir.Path() / "fxcache";
  const ToolTesting::Result cold =
      ToolTesting::Run({"demo", ToolTesting::Utf8(folder), "--effects", "30", "--work", "100", "--foreground-saving"});
  ASSERT_EQ(cold.status, ExitStatus::kOk) << cold.err;
  EXPECT_TRUE(ToolTesting::Contains(cold.out, "cache file: 30 effects, ")) << cold.out;
  const ToolTesting::Result warm = Demo(folder);
  EXPECT_TRUE(ToolTesting::Contains(warm.out, "30 hits, 0 misses, ")) << warm.out;
}

TEST(DemoCommandTest, BothRunsReportTheSameBytesOfEffects) {
  TempDir dir;
  const ToolTesting::Result cold = Demo(dir.Path());
  const ToolTesting::Result warm = Demo(dir.Path());
  const auto bytesOf = [](const std::string& out) {
    const std::size_t misses = out.find(" misses, ");
    return out.substr(misses + 9, out.find(" of effects") - misses - 9);
  };
  EXPECT_EQ(bytesOf(cold.out), bytesOf(warm.out));
  EXPECT_FALSE(bytesOf(cold.out).empty());
}

TEST(DemoCommandTest, TheSpeedUpLineRepeatsTheWallTimesOfBothRuns) {
  TempDir dir;
  const ToolTesting::Result cold = Demo(dir.Path());
  const ToolTesting::Result warm = Demo(dir.Path());
  const auto wallTimeOf = [](const std::string& out) {
    const std::size_t at = out.find("wall time:  ") + 12;
    return out.substr(at, out.find('\n', at) - at);
  };
  const std::string speedUp = "(" + wallTimeOf(cold.out) + " -> " + wallTimeOf(warm.out) + ")\n";
  EXPECT_TRUE(ToolTesting::Contains(warm.out, speedUp)) << speedUp << " in\n" << warm.out;
}

TEST(DemoCommandTest, MoreEffectsThanCachedMakeAPartlyWarmRun) {
  TempDir dir;
  Demo(dir.Path(), "10");
  const ToolTesting::Result mixed = Demo(dir.Path(), "15");
  EXPECT_EQ(mixed.status, ExitStatus::kOk);
  EXPECT_TRUE(ToolTesting::Contains(mixed.out, "run 2 (partly warm): 10 hits, 5 misses")) << mixed.out;
  EXPECT_FALSE(ToolTesting::Contains(mixed.out, "times faster")) << mixed.out;
}

TEST(DemoCommandTest, AWrongCountIsAUsageError) {
  TempDir dir;
  EXPECT_EQ(ToolTesting::Run({"demo", ToolTesting::Utf8(dir.Path()), "--effects", "0"}).status, ExitStatus::kUsage);
  EXPECT_EQ(ToolTesting::Run({"demo", ToolTesting::Utf8(dir.Path()), "--work", "x"}).status, ExitStatus::kUsage);
  EXPECT_EQ(ToolTesting::Run({"demo", "a", "b"}).status, ExitStatus::kUsage);
  EXPECT_TRUE(fs::is_empty(dir.Path()));
}

TEST(DemoCommandTest, AFolderThatCannotBeMadeIsAnError) {
  TempDir dir;
  const fs::path file = dir.Path() / "file";
  { std::ofstream touch(file); }
  const ToolTesting::Result result = Demo(file / "fxcache");
  EXPECT_EQ(result.status, ExitStatus::kFailed);
  EXPECT_TRUE(ToolTesting::Contains(result.err, "cannot be made as a folder")) << result.err;
}

}  // namespace
}  // namespace Tool
}  // namespace Tovrel
