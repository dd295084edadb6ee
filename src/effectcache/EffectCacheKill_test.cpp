// Several host processes on one cache folder while one of them is killed
// in the middle of its saves, again and again. The others never meet a
// half-written file (their caches stay usable, and every effect they find
// is byte-exact), and every save that the killed process completed is
// there afterwards.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "effectcache/CacheFileNames.h"
#include "effectcache/EffectCacheImpl.h"
#include "support/ChildLauncher.h"
#include "support/ChildProcess.h"
#include "support/EffectTesting.h"
#include "support/MutexProbe.h"
#include "support/TempDir.h"
#include "tovrel/EffectCacheSystem.h"

namespace Tovrel {
namespace {

namespace fs = std::filesystem;
using Testing::ChildLauncher;
using Testing::EffectTesting;

constexpr int kWorkers = 3;
constexpr int kMidSaveKills = 50;
constexpr int kMostAttempts = 200;
constexpr int kBatch = 16;

// An effect's bytes follow from its name alone, so that any process can
// tell whether what it found is exactly what was stored under that name.
std::vector<unsigned char> BytesOf(const std::wstring& name) {
  return EffectTesting::BytesNamedBy(ChildLauncher::Narrow(name));
}

std::wstring WorkerName(int worker, int i) { return L"fx/w" + std::to_wstring(worker) + L"/" + std::to_wstring(i); }
std::wstring VictimName(int run, int batch, int j) {
  return L"fx/v" + std::to_wstring(run) + L"/" + std::to_wstring(batch) + L"/" + std::to_wstring(j);
}

// A host that caches its own effects, saves often, and looks for every
// other process's effects, checking each hit, until told to stop.
TOVREL_CHILD_ROLE(kill_worker) {
  if (argc != 3) return 2;
  const std::wstring folder = ChildLauncher::Wide(argv[0]);
  const int worker = std::atoi(argv[1]);
  const fs::path stop = fs::path(ChildLauncher::Wide(argv[2]));
  RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(WStr(folder.c_str())));
  std::mt19937 random(static_cast<std::uint32_t>(worker));
  for (int i = 0; !fs::exists(stop); ++i) {
    const std::wstring mine = WorkerName(worker, i);
    const auto bytes = BytesOf(mine);
    if (!cache->CacheCompiledEffect(WStr(mine.c_str()), bytes.data(), bytes.size(), false)) return 3;
    const std::wstring theirs = random() % 2 == 0 ? WorkerName(1 + static_cast<int>(random() % kWorkers), static_cast<int>(random() % (i + 1)))
                                                  : VictimName(static_cast<int>(random() % 20), 1 + static_cast<int>(random() % 3),
                                                               static_cast<int>(random() % kBatch));
    Tab<unsigned char> data;
    if (cache->SearchCachedEffects(WStr(theirs.c_str()), data) && EffectTesting::ToVector(data) != BytesOf(theirs)) {
      return 4;  // a wrong byte handed back
    }
    if (i % 10 == 9) cache->ForceSaveToFile();
    if (!cache->IsEnabled()) return 5;  // it met a file it could not use
  }
  return 0;
}

// The process that gets killed: batch after batch of large effects, each
// announced before its save ("saving-K") and listed after it ("saved-K").
TOVREL_CHILD_ROLE(kill_victim) {
  if (argc != 3) return 2;
  const std::wstring folder = ChildLauncher::Wide(argv[0]);
  const int run = std::atoi(argv[1]);
  const fs::path marks = fs::path(ChildLauncher::Wide(argv[2]));
  RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(WStr(folder.c_str())));
  for (int batch = 1; batch < 1000; ++batch) {
    for (int j = 0; j < kBatch; ++j) {
      const std::wstring name = VictimName(run, batch, j);
      const auto bytes = BytesOf(name);
      if (!cache->CacheCompiledEffect(WStr(name.c_str()), bytes.data(), bytes.size(), false)) return 3;
    }
    ChildLauncher::Signal(marks / ("saving-" + std::to_string(batch)));
    cache->ForceSaveToFile();
    if (!cache->IsEnabled()) return 4;
    ChildLauncher::Signal(marks / ("saved-" + std::to_string(batch)));
  }
  return 0;
}

int LastMark(const fs::path& marks, const std::string& stem) {
  int last = 0;
  while (fs::exists(marks / (stem + std::to_string(last + 1)))) ++last;
  return last;
}

TEST(EffectCacheKillTest, KillingAHostInTheMiddleOfItsSavesHarmsNoOtherAndLosesNoCompletedSave) {
  Testing::TempDir dir;
  const fs::path folder = dir.Path() / "cache";
  fs::create_directories(folder);
  const fs::path stop = dir.Path() / "stop";
  std::vector<std::unique_ptr<PlatformProcess>> workers;
  for (int w = 1; w <= kWorkers; ++w) {
    workers.push_back(ChildLauncher::Start(
        "kill_worker", {ChildLauncher::Narrow(folder.wstring()), std::to_string(w), ChildLauncher::Narrow(stop.wstring())}));
    ASSERT_NE(workers.back(), nullptr);
  }
  std::mt19937 random(2026);
  int midSave = 0;
  int completedSaves = 0;
  for (int run = 0; run < kMostAttempts && midSave < kMidSaveKills; ++run) {
    const fs::path marks = dir.Path() / ("marks" + std::to_string(run));
    fs::create_directories(marks);
    auto victim = ChildLauncher::Start(
        "kill_victim", {ChildLauncher::Narrow(folder.wstring()), std::to_string(run), ChildLauncher::Narrow(marks.wstring())});
    ASSERT_NE(victim, nullptr);
    const int target = 1 + static_cast<int>(random() % 3);
    ASSERT_TRUE(ChildLauncher::WaitForFile(marks / ("saving-" + std::to_string(target)), *victim)) << "run " << run;
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 30000));
    victim->Kill();
    int exitCode = 0;
    ASSERT_TRUE(victim->Wait(ChildLauncher::kBoundMilliseconds, &exitCode));
    ASSERT_EQ(exitCode, PlatformProcess::kKilledExitCode) << "run " << run;
    const int saving = LastMark(marks, "saving-");
    const int saved = LastMark(marks, "saved-");
    if (saving > saved) ++midSave;
    completedSaves += saved;
    // Every batch whose save completed is there, byte for byte.
    RefPtr<EffectCacheSystem> reader(new EffectCacheSystem(WStr(folder.wstring().c_str())));
    ASSERT_TRUE(reader->IsEnabled());
    for (int batch = 1; batch <= saved; ++batch) {
      for (int j = 0; j < kBatch; ++j) {
        const std::wstring name = VictimName(run, batch, j);
        Tab<unsigned char> data;
        ASSERT_TRUE(reader->SearchCachedEffects(WStr(name.c_str()), data)) << ChildLauncher::Narrow(name);
        ASSERT_EQ(EffectTesting::ToVector(data), BytesOf(name)) << ChildLauncher::Narrow(name);
      }
    }
  }
  ChildLauncher::Signal(stop);
  for (auto& worker : workers) EXPECT_EQ(ChildLauncher::Finish(*worker), 0);
  EXPECT_EQ(midSave, kMidSaveKills);
  ::testing::Test::RecordProperty("mid_save_kills", midSave);
  ::testing::Test::RecordProperty("completed_saves_checked", completedSaves);
}

// Windows tells the next owner of a mutex whose holder died that it was
// abandoned. A host killed while it renewed the shared stamp, or while it
// opened the save counter, leaves those mutexes so: the next host to open
// the cache must still open it at once, and save.
TEST(EffectCacheKillTest, AHostStartedAfterAnotherDiedHoldingTheStampAndCounterMutexesSavesAtOnce) {
  Testing::TempDir dir;
  const std::wstring folder = dir.Path().wstring();
  EffectCacheImpl first(WStr(folder.c_str()), 2);
  const auto before = EffectTesting::Bytes(1, 5000, true);
  ASSERT_TRUE(first.CacheCompiledEffect(WStr(L"fx/before"), before.data(), before.size(), false));
  first.ForceSaveToFile();
  ASSERT_EQ(first.GetNumberOfEffectsInMemory(), 0u);
  const std::wstring file = first.GetCacheFileFullPath().data();
  for (const std::wstring& mutex :
       {CacheFileNames::TimeStampName(file) + L"_mutex", CacheFileNames::SaveCounterName(file) + L"_mutex"}) {
    ASSERT_TRUE(Testing::MutexProbe::KillAHolder(mutex, dir.Path()));
  }
  EffectCacheImpl next(WStr(folder.c_str()), 2);
  const auto after = EffectTesting::Bytes(2, 5000, true);
  ASSERT_TRUE(next.CacheCompiledEffect(WStr(L"fx/after"), after.data(), after.size(), false));
  next.ForceSaveToFile();
  EXPECT_EQ(next.GetNumberOfEffectsInMemory(), 0u) << "the save wrote nothing";
  Tab<unsigned char> data;
  ASSERT_TRUE(next.SearchCachedEffects(WStr(L"fx/before"), data));
  EXPECT_EQ(EffectTesting::ToVector(data), before);
  ASSERT_TRUE(first.SearchCachedEffects(WStr(L"fx/after"), data));
  EXPECT_EQ(EffectTesting::ToVector(data), after);
}

}  // namespace
}  // namespace Tovrel
