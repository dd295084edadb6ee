// Crashes at every file call of a seeded run of package saves: a power cut
// that drops writes not yet synced, the death of the process with its
// writes made, and a child process on the disk that ends itself at the
// call. Every time, the file opens with exactly the streams and user data
// of the last save that returned, or of the save under way when the crash
// came after its commit point.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platform/FileFaults.h"
#include "platform/NativeFileSystem.h"
#include "support/ChildLauncher.h"
#include "support/ChildProcess.h"
#include "support/CrashRunner.h"
#include "support/InstalledFileSystem.h"
#include "support/PackageCrashWorkload.h"
#include "support/TempDir.h"

namespace Tovrel {
namespace {

using Testing::ChildLauncher;
using Testing::CrashRunner;
using Testing::CrashWorkload;
using Testing::PackageCrashWorkload;

constexpr int kRounds = 8;

CrashRunner::Factory InMemory(std::uint32_t seed, bool compactions = false) {
  return [seed, compactions] {
    return std::unique_ptr<CrashWorkload>(new PackageCrashWorkload(L"crash.dat", seed, kRounds, compactions));
  };
}

CrashRunner::Reference MeasureInMemory(const CrashRunner::Factory& make) {
  Testing::InstalledFileSystem files;
  return CrashRunner::Measure(make);
}

void CrashEverywhere(CrashRunner::Crash crash, std::uint32_t seed, std::size_t sample, bool compactions = false) {
  const CrashRunner::Factory make = InMemory(seed, compactions);
  const CrashRunner::Reference reference = MeasureInMemory(make);
  ASSERT_EQ(reference.states.size(), static_cast<std::size_t>(kRounds + 1));
  ASSERT_GT(reference.calls, 100u);
  const std::vector<std::uint64_t> points = CrashRunner::Points(reference.calls, sample, seed);
  ::testing::Test::RecordProperty("seed" + std::to_string(seed) + "_file_calls", std::to_string(reference.calls));
  ::testing::Test::RecordProperty("seed" + std::to_string(seed) + "_crash_points", std::to_string(points.size()));
  int failures = 0;
  for (std::uint64_t n : points) {
    const std::string wrong = CrashRunner::CrashInMemory(make, reference, n, crash, seed * 7919 + static_cast<std::uint32_t>(n));
    EXPECT_EQ(wrong, "") << "seed " << seed;
    if (!wrong.empty() && ++failures > 5) return;
  }
}

TEST(PackageCrashTest, APowerCutAtAnyFileCallLeavesTheLastSaveOrTheOneUnderWay) {
  for (std::uint32_t seed : CrashRunner::Seeds({1, 2, 3}, 100)) CrashEverywhere(CrashRunner::Crash::kPowerLoss, seed, 400);
}

TEST(PackageCrashTest, AProcessDeathAtAnyFileCallLeavesTheLastSaveOrTheOneUnderWay) {
  for (std::uint32_t seed : CrashRunner::Seeds({4, 5}, 200)) CrashEverywhere(CrashRunner::Crash::kProcessDeath, seed, 400);
}

// Compactions move pages into free ones, pack tails into fewer child
// files and cut the file: a crash leaves the old file or the compacted
// one, with the same streams, never a mixture, and never a length between.
TEST(PackageCrashTest, APowerCutAtAnyFileCallOfACompactionLeavesTheOldFileOrTheCompactedOne) {
  for (std::uint32_t seed : CrashRunner::Seeds({7, 8}, 300)) CrashEverywhere(CrashRunner::Crash::kPowerLoss, seed, 400, true);
}

TEST(PackageCrashTest, AProcessDeathAtAnyFileCallOfACompactionLeavesTheOldFileOrTheCompactedOne) {
  for (std::uint32_t seed : CrashRunner::Seeds({9}, 400)) CrashEverywhere(CrashRunner::Crash::kProcessDeath, seed, 400, true);
}

TOVREL_CHILD_ROLE(package_crash) {
  if (argc != 3) return 2;
  PackageCrashWorkload workload(ChildLauncher::Wide(argv[0]), static_cast<std::uint32_t>(std::atoi(argv[1])), kRounds);
  FileFaults::StartCounting();
  FileFaults::CutPowerAtNth(FileCall::kAny, std::strtoull(argv[2], nullptr, 10));
  workload.Run([](int) {}, [](int, const CrashWorkload::State&) {});
  return 0;
}

TEST(PackageCrashTest, AChildProcessEndingAtAnyFileCallOnTheDiskLeavesTheLastSaveOrTheOneUnderWay) {
  Testing::TempDir dir;
  const std::wstring reference = dir.File("reference.dat");
  const std::wstring victim = dir.File("victim.dat");
  const std::uint32_t seed = 6;
  const CrashRunner::Reference measured = CrashRunner::Measure(
      [&] { return std::unique_ptr<CrashWorkload>(new PackageCrashWorkload(reference, seed, kRounds)); });
  ASSERT_EQ(measured.states.size(), static_cast<std::size_t>(kRounds + 1));
  for (std::uint64_t n : CrashRunner::Points(measured.calls, 24, seed)) {
    std::error_code ignored;
    std::filesystem::remove(std::filesystem::path(victim), ignored);
    std::filesystem::remove(std::filesystem::path(victim + L"-journal"), ignored);
    auto child = ChildLauncher::Start("package_crash", {ChildLauncher::Narrow(victim), std::to_string(seed), std::to_string(n)});
    ASSERT_NE(child, nullptr);
    ASSERT_EQ(ChildLauncher::Finish(*child), NativeFileSystem::kPowerCutExitCode) << "call " << n;
    PackageCrashWorkload reader(victim, seed, kRounds);
    EXPECT_EQ(CrashRunner::Check(measured, n, reader.Read()), "");
  }
}

}  // namespace
}  // namespace Tovrel
