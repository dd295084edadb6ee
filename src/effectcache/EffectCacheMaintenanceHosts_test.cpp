// The maintenance operations on a cache folder while two host processes
// cache and search in it: no effect goes that the operation did not
// remove, no host is ever handed a wrong byte or meets a file it cannot
// use, and the hosts see a removal at their next search.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "effectcache/EffectCacheMaintenance.h"
#include "effectcache/EffectCacheStats.h"
#include "support/ChildLauncher.h"
#include "support/ChildProcess.h"
#include "support/EffectTesting.h"
#include "support/TempDir.h"
#include "tovrel/EffectCacheSystem.h"

namespace Tovrel {
namespace {

namespace fs = std::filesystem;
using Testing::ChildLauncher;
using Testing::EffectTesting;

constexpr int kHosts = 2;
constexpr int kGone = 12;      // "gone/K": removed by name while the hosts run
constexpr int kKept = 6;       // "kept/K": permanent, never removed
constexpr int kRounds = 4;     // removals and trims while the hosts run

// An effect's bytes follow from its name alone.
std::vector<unsigned char> BytesOf(const std::wstring& name) {
  return EffectTesting::BytesNamedBy(ChildLauncher::Narrow(name));
}

std::wstring Numbered(const std::wstring& stem, int i) { return stem + std::to_wstring(i); }

bool Store(EffectCacheSystem& cache, const std::wstring& name, bool permanent) {
  const auto bytes = BytesOf(name);
  return cache.CacheCompiledEffect(WStr(name.c_str()), bytes.data(), bytes.size(), permanent);
}

// A host: caches its own effects and saves every few, logging each name
// once its save returned (with the phase it saw before that save began);
// searches for the others' effects and the kept and gone ones, checking
// every hit; once the "removed" marker exists, finding a gone effect is an
// error. Runs until the stop marker appears.
TOVREL_CHILD_ROLE(maintenance_host) {
  if (argc != 4) return 2;
  const std::wstring folder = ChildLauncher::Wide(argv[0]);
  const int host = std::atoi(argv[1]);
  const fs::path marks = fs::path(ChildLauncher::Wide(argv[2]));
  std::ofstream log(fs::path(ChildLauncher::Wide(argv[3])), std::ios::app);
  RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(WStr(folder.c_str())));
  std::vector<std::wstring> unsaved;
  for (int i = 0; !fs::exists(marks / "stop"); ++i) {
    const std::wstring mine = Numbered(L"host" + std::to_wstring(host) + L"/", i);
    if (!Store(*cache, mine, false)) return 3;
    unsaved.push_back(mine);
    const std::wstring wanted = i % 3 == 0   ? Numbered(L"gone/", i % kGone)
                                : i % 3 == 1 ? Numbered(L"kept/", i % kKept)
                                             : Numbered(L"host" + std::to_wstring(3 - host) + L"/", i / 2);
    const bool removedBefore = fs::exists(marks / "removed");
    Tab<unsigned char> data;
    if (cache->SearchCachedEffects(WStr(wanted.c_str()), data)) {
      if (EffectTesting::ToVector(data) != BytesOf(wanted)) return 4;  // a wrong byte
      if (removedBefore && wanted.compare(0, 5, L"gone/") == 0) return 5;  // a removal not seen
    } else if (wanted.compare(0, 5, L"kept/") == 0) {
      return 6;  // a permanent effect lost
    }
    if (i % 8 == 7) {
      const bool late = fs::exists(marks / "late");
      cache->ForceSaveToFile();
      if (!cache->IsEnabled()) return 7;
      for (const std::wstring& name : unsaved) log << (late ? "late " : "early ") << ChildLauncher::Narrow(name) << "\n";
      log.flush();
      unsaved.clear();
    }
  }
  return 0;
}

// A host with a script: `hits` searches of kept/0, `misses` of names never
// stored, one effect cached, then its save at the end.
TOVREL_CHILD_ROLE(scripted_host) {
  if (argc != 4) return 2;
  RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(WStr(ChildLauncher::Wide(argv[0]).c_str())));
  const int hits = std::atoi(argv[1]);
  const int misses = std::atoi(argv[2]);
  Tab<unsigned char> data;
  for (int i = 0; i < hits; ++i) {
    if (!cache->SearchCachedEffects(WStr(L"kept/0"), data)) return 3;
  }
  for (int i = 0; i < misses; ++i) {
    if (cache->SearchCachedEffects(WStr(Numbered(L"never/", i).c_str()), data)) return 4;
  }
  if (!Store(*cache, ChildLauncher::Wide(argv[3]), false)) return 5;
  cache->ForceSaveToFile();
  return cache->IsEnabled() ? 0 : 6;
}

class EffectCacheMaintenanceHostsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(folder_);
    fs::create_directories(marks_);
    RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(Folder()));
    for (int i = 0; i < kGone; ++i) ASSERT_TRUE(Store(*cache, Numbered(L"gone/", i), false));
    for (int i = 0; i < kKept; ++i) ASSERT_TRUE(Store(*cache, Numbered(L"kept/", i), true));
    cache->ForceSaveToFile();
    for (int h = 1; h <= kHosts; ++h) {
      hosts_.push_back(ChildLauncher::Start("maintenance_host",
                                            {Narrow(folder_), std::to_string(h), Narrow(marks_), Narrow(Log(h))}));
      ASSERT_NE(hosts_.back(), nullptr);
    }
  }
  void TearDown() override {
    ChildLauncher::Signal(marks_ / "stop");
    for (auto& host : hosts_) ChildLauncher::Finish(*host);
  }
  WStr Folder() const { return WStr(folder_.wstring().c_str()); }
  fs::path Log(int host) const { return dir_.Path() / ("host" + std::to_string(host) + ".log"); }
  static std::string Narrow(const fs::path& path) { return ChildLauncher::Narrow(path.wstring()); }
  // Lets each host make one more save of the phase ("" for either): a
  // save a host began before the "late" mark logs its names as early, so
  // the waits after the mark count late ones. Bounded at 30 s per host.
  void LetHostsWork(const std::string& phase = "") {
    for (int h = 1; h <= kHosts; ++h) {
      const std::size_t before = LoggedNames(h, phase).size();
      for (int wait = 0; wait < 6000 && LoggedNames(h, phase).size() < before + 8; ++wait) {
        int exitCode = 0;
        ASSERT_FALSE(hosts_[static_cast<std::size_t>(h - 1)]->Wait(5, &exitCode)) << "host " << h << " ended: " << exitCode;
      }
    }
  }
  // Names a host logged as saved, of the given phase ("" for both).
  std::vector<std::string> LoggedNames(int host, const std::string& phase) const {
    std::ifstream in(Log(host));
    std::vector<std::string> names;
    std::string when, name;
    while (in >> when >> name) {
      if (phase.empty() || when == phase) names.push_back(name);
    }
    return names;
  }
  // Stops the hosts and checks that they met nothing wrong.
  void StopHosts() {
    ChildLauncher::Signal(marks_ / "stop");
    for (auto& host : hosts_) EXPECT_EQ(ChildLauncher::Finish(*host), 0);
    hosts_.clear();
  }
  // Every name is in the cache, byte-exact; none of `absent` is.
  void ExpectStored(const std::vector<std::wstring>& present, const std::vector<std::wstring>& absent) const {
    RefPtr<EffectCacheSystem> reader(new EffectCacheSystem(Folder()));
    ASSERT_TRUE(reader->IsEnabled());
    for (const std::wstring& name : present) {
      Tab<unsigned char> data;
      ASSERT_TRUE(reader->SearchCachedEffects(WStr(name.c_str()), data)) << ChildLauncher::Narrow(name);
      EXPECT_EQ(EffectTesting::ToVector(data), BytesOf(name)) << ChildLauncher::Narrow(name);
    }
    for (const std::wstring& name : absent) {
      Tab<unsigned char> data;
      EXPECT_FALSE(reader->SearchCachedEffects(WStr(name.c_str()), data)) << ChildLauncher::Narrow(name);
    }
  }
  static std::vector<std::wstring> Range(const std::wstring& stem, int n) {
    std::vector<std::wstring> names;
    for (int i = 0; i < n; ++i) names.push_back(Numbered(stem, i));
    return names;
  }

  Testing::TempDir dir_;
  fs::path folder_ = dir_.Path() / "cache";
  fs::path marks_ = dir_.Path() / "marks";
  std::vector<std::unique_ptr<PlatformProcess>> hosts_;
};

TEST_F(EffectCacheMaintenanceHostsTest, RemovingByNameTakesOnlyThoseAndTheHostsSeeIt) {
  LetHostsWork();
  std::vector<std::string> gone;
  for (int i = 0; i < kGone; ++i) gone.push_back("gone/" + std::to_string(i));
  const auto result = EffectCacheMaintenance::Remove(Folder(), gone, false);
  ASSERT_TRUE(result.ok);
  EXPECT_EQ(result.removedEffects, static_cast<std::uint64_t>(kGone));
  ChildLauncher::Signal(marks_ / "removed");
  LetHostsWork();
  StopHosts();
  std::vector<std::wstring> present = Range(L"kept/", kKept);
  for (int h = 1; h <= kHosts; ++h) {
    for (const std::string& name : LoggedNames(h, "")) present.push_back(ChildLauncher::Wide(name));
  }
  // Each host saved at least twice, 8 names a save, before and after the
  // removal (exactly that is possible: each wait ends at 8 more names).
  EXPECT_GE(present.size(), static_cast<std::size_t>(kKept + 2 * 16));
  ExpectStored(present, Range(L"gone/", kGone));
}

TEST_F(EffectCacheMaintenanceHostsTest, TrimsAndClearsNeverTakePermanentEffectsNorLaterSaves) {
  for (int round = 0; round < kRounds; ++round) {
    LetHostsWork();
    EffectCacheMaintenance::TrimRule rule;
    rule.bySize = true;
    rule.maxStoredBytes = 20000;
    ASSERT_TRUE(EffectCacheMaintenance::Trim(Folder(), rule, 0, false).ok) << round;
    LetHostsWork();
    ASSERT_TRUE(EffectCacheMaintenance::Clear(Folder(), true, false).ok) << round;
  }
  // What the hosts save after the last clear stays.
  ChildLauncher::Signal(marks_ / "late");
  LetHostsWork("late");
  LetHostsWork("late");
  StopHosts();
  std::vector<std::wstring> present = Range(L"kept/", kKept);
  std::size_t late = 0;
  for (int h = 1; h <= kHosts; ++h) {
    for (const std::string& name : LoggedNames(h, "late")) {
      present.push_back(ChildLauncher::Wide(name));
      ++late;
    }
  }
  EXPECT_GE(late, 16u);
  ExpectStored(present, Range(L"gone/", kGone));
}

TEST_F(EffectCacheMaintenanceHostsTest, CompactionsWhileHostsWorkLoseNothingAndShrinkTheFile) {
  const fs::path file = folder_ / "norvaneFxoCache.dat";
  for (int round = 0; round < kRounds; ++round) {
    LetHostsWork();
    EffectCacheMaintenance::TrimRule rule;
    rule.bySize = true;
    rule.maxStoredBytes = 30000;
    ASSERT_TRUE(EffectCacheMaintenance::Trim(Folder(), rule, 0, false).ok) << round;
    LetHostsWork();
    const auto result = EffectCacheMaintenance::Compact(Folder());
    ASSERT_TRUE(result.ok) << round;
    EXPECT_LE(result.fileBytesAfter, result.fileBytesBefore) << round;
  }
  // Nothing is trimmed from here on: every effect the hosts save must stay
  // through the compactions that run meanwhile.
  ChildLauncher::Signal(marks_ / "late");
  LetHostsWork("late");
  ASSERT_TRUE(EffectCacheMaintenance::Compact(Folder()).ok);
  LetHostsWork("late");
  ASSERT_TRUE(EffectCacheMaintenance::Compact(Folder()).ok);
  LetHostsWork("late");
  StopHosts();
  std::vector<std::wstring> present = Range(L"kept/", kKept);
  for (int h = 1; h <= kHosts; ++h) {
    for (const std::string& name : LoggedNames(h, "late")) present.push_back(ChildLauncher::Wide(name));
  }
  EXPECT_GE(present.size(), static_cast<std::size_t>(kKept + 3 * 8 * kHosts));
  ExpectStored(present, Range(L"gone/", kGone));
  // With the hosts gone: a trim frees pages, the compaction gives them
  // back, and every effect left is as it was.
  EffectCacheMaintenance::TrimRule rule;
  rule.bySize = true;
  rule.maxStoredBytes = 40000;
  ASSERT_TRUE(EffectCacheMaintenance::Trim(Folder(), rule, 0, false).ok);
  const auto names = EffectTesting::IndexNames(file.wstring());
  const auto result = EffectCacheMaintenance::Compact(Folder());
  ASSERT_TRUE(result.ok);
  EXPECT_LT(result.fileBytesAfter, result.fileBytesBefore);
  EXPECT_EQ(fs::file_size(file), result.fileBytesAfter);
  EXPECT_EQ(EffectTesting::IndexNames(file.wstring()), names);
  std::vector<std::wstring> left;
  for (const std::string& name : names) left.push_back(ChildLauncher::Wide(name));
  ExpectStored(left, {});
}

TEST_F(EffectCacheMaintenanceHostsTest, AMergeInAddsTheOtherFoldersEffectsAndLosesNone) {
  const fs::path side = dir_.Path() / "side";
  fs::create_directories(side);
  {
    RefPtr<EffectCacheSystem> other(new EffectCacheSystem(WStr(side.wstring().c_str())));
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(Store(*other, Numbered(L"merged/", i), i % 4 == 0));
  }
  LetHostsWork();
  const auto result = EffectCacheMaintenance::Merge(Folder(), {WStr(side.wstring().c_str())});
  ASSERT_TRUE(result.ok);
  EXPECT_EQ(result.copiedEffects, 20u);
  LetHostsWork();
  StopHosts();
  std::vector<std::wstring> present = Range(L"kept/", kKept);
  const std::vector<std::wstring> merged = Range(L"merged/", 20);
  present.insert(present.end(), merged.begin(), merged.end());
  for (int h = 1; h <= kHosts; ++h) {
    for (const std::string& name : LoggedNames(h, "")) present.push_back(ChildLauncher::Wide(name));
  }
  ExpectStored(present, {});
  EXPECT_EQ(EffectTesting::ReadIndex((folder_ / "norvaneFxoCache.dat").wstring()).at("merged/4").permanent, 1u);
}

TEST_F(EffectCacheMaintenanceHostsTest, StatisticsCountEveryProcessExactlyAndZero) {
  StopHosts();  // the script's processes alone from here
  ASSERT_TRUE(EffectCacheMaintenance::ZeroStatistics(Folder()));
  const std::wstring file = (folder_ / "norvaneFxoCache.dat").wstring();
  EffectCacheStats stats;
  ASSERT_TRUE(EffectTesting::ReadStats(file, stats));
  EXPECT_FALSE(stats.AnyCounts());
  std::vector<std::unique_ptr<PlatformProcess>> scripted;
  scripted.push_back(ChildLauncher::Start("scripted_host", {Narrow(folder_), "7", "3", "script/1"}));
  scripted.push_back(ChildLauncher::Start("scripted_host", {Narrow(folder_), "4", "9", "script/2"}));
  for (auto& child : scripted) {
    ASSERT_NE(child, nullptr);
    EXPECT_EQ(ChildLauncher::Finish(*child), 0);
  }
  ASSERT_TRUE(EffectTesting::ReadStats(file, stats));
  EXPECT_EQ(stats.hits, 11u);
  EXPECT_EQ(stats.misses, 12u);
  EXPECT_EQ(stats.cached, 2u);
  EXPECT_EQ(stats.trimmed, 0u);
  ASSERT_TRUE(EffectCacheMaintenance::ZeroStatistics(Folder()));
  ASSERT_TRUE(EffectTesting::ReadStats(file, stats));
  EXPECT_FALSE(stats.AnyCounts());
  ExpectStored({L"script/1", L"script/2", L"kept/0"}, {});
}

}  // namespace
}  // namespace Tovrel
