// Crashes at every file call of a seeded run of effect cache saves (new
// effects, replaced ones, trims under a small size limit): a power cut that
// drops writes not yet synced, the death of the process with its writes
// made, and a child process on the disk that ends itself at the call.
// Every time, a cache opened afterwards finds exactly the effects of the
// last save that returned, byte for byte, or those of the save under way
// when the crash came after its commit point.
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
#include "support/EffectCrashWorkload.h"
#include "support/InstalledFileSystem.h"
#include "support/TempDir.h"

namespace Tovrel {
namespace {

using Testing::ChildLauncher;
using Testing::CrashRunner;
using Testing::CrashWorkload;
using Testing::EffectCrashWorkload;

constexpr int kRounds = 6;

CrashRunner::Factory Workload(const std::wstring& folder, std::uint32_t seed) {
  return [folder, seed] { return std::unique_ptr<CrashWorkload>(new EffectCrashWorkload(folder, seed, kRounds)); };
}

void CrashEverywhere(CrashRunner::Crash crash, std::uint32_t seed, std::size_t sample) {
  const CrashRunner::Factory make = Workload(L"fxcrash" + std::to_wstring(seed), seed);
  CrashRunner::Reference reference;
  {
    Testing::InstalledFileSystem files;
    reference = CrashRunner::Measure(make);
  }
  ASSERT_EQ(reference.states.size(), static_cast<std::size_t>(kRounds + 1));
  ASSERT_GT(reference.calls, 100u);
  const std::vector<std::uint64_t> points = CrashRunner::Points(reference.calls, sample, seed);
  ::testing::Test::RecordProperty("seed" + std::to_string(seed) + "_file_calls", std::to_string(reference.calls));
  ::testing::Test::RecordProperty("seed" + std::to_string(seed) + "_crash_points", std::to_string(points.size()));
  int failures = 0;
  for (std::uint64_t n : points) {
    const std::string wrong = CrashRunner::CrashInMemory(make, reference, n, crash, seed * 104729 + static_cast<std::uint32_t>(n));
    EXPECT_EQ(wrong, "") << "seed " << seed;
    if (!wrong.empty() && ++failures > 5) return;
  }
}

TEST(EffectCacheCrashTest, TheWorkloadTrimsAndReplacesEffects) {
  Testing::InstalledFileSystem files;
  const CrashRunner::Reference reference = CrashRunner::Measure(Workload(L"fxshape", 1));
  ASSERT_EQ(reference.states.size(), static_cast<std::size_t>(kRounds + 1));
  std::size_t most = 0;
  bool lost = false;
  for (std::size_t r = 1; r < reference.states.size(); ++r) {
    most = std::max(most, reference.states[r].size());
    for (const auto& effect : reference.states[r - 1]) lost = lost || reference.states[r].count(effect.first) == 0;
  }
  EXPECT_TRUE(lost);  // some save trimmed an effect that an earlier one had stored
  EXPECT_LT(most, static_cast<std::size_t>(EffectCrashWorkload::kNames));
}

TEST(EffectCacheCrashTest, APowerCutAtAnyFileCallLeavesTheLastSaveOrTheOneUnderWay) {
  for (std::uint32_t seed : CrashRunner::Seeds({1, 2}, 100)) CrashEverywhere(CrashRunner::Crash::kPowerLoss, seed, 300);
}

TEST(EffectCacheCrashTest, AProcessDeathAtAnyFileCallLeavesTheLastSaveOrTheOneUnderWay) {
  for (std::uint32_t seed : CrashRunner::Seeds({3}, 200)) CrashEverywhere(CrashRunner::Crash::kProcessDeath, seed, 300);
}

TOVREL_CHILD_ROLE(effect_crash) {
  if (argc != 3) return 2;
  EffectCrashWorkload workload(ChildLauncher::Wide(argv[0]), static_cast<std::uint32_t>(std::atoi(argv[1])), kRounds);
  FileFaults::StartCounting();
  FileFaults::CutPowerAtNth(FileCall::kAny, std::strtoull(argv[2], nullptr, 10));
  workload.Run([](int) {}, [](int, const CrashWorkload::State&) {});
  return 0;
}

TEST(EffectCacheCrashTest, AChildProcessEndingAtAnyFileCallOnTheDiskLeavesTheLastSaveOrTheOneUnderWay) {
  Testing::TempDir dir;
  const std::uint32_t seed = 4;
  const std::wstring reference = (dir.Path() / "reference").wstring();
  const std::wstring victim = (dir.Path() / "victim").wstring();
  std::filesystem::create_directories(std::filesystem::path(reference));
  const CrashRunner::Reference measured = CrashRunner::Measure(Workload(reference, seed));
  ASSERT_EQ(measured.states.size(), static_cast<std::size_t>(kRounds + 1));
  for (std::uint64_t n : CrashRunner::Points(measured.calls, 16, seed)) {
    std::error_code ignored;
    std::filesystem::remove_all(std::filesystem::path(victim), ignored);
    std::filesystem::create_directories(std::filesystem::path(victim));
    auto child = ChildLauncher::Start("effect_crash", {ChildLauncher::Narrow(victim), std::to_string(seed), std::to_string(n)});
    ASSERT_NE(child, nullptr);
    ASSERT_EQ(ChildLauncher::Finish(*child), NativeFileSystem::kPowerCutExitCode) << "call " << n;
    EffectCrashWorkload reader(victim, seed, kRounds);
    EXPECT_EQ(CrashRunner::Check(measured, n, reader.Read()), "");
  }
}

}  // namespace
}  // namespace Tovrel
