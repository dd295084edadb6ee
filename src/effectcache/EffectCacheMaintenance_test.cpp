#include "effectcache/EffectCacheMaintenance.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "effectcache/CacheTimeStamp.h"
#include "support/EffectTesting.h"
#include "support/TempDir.h"
#include "tovrel/EffectCacheSystem.h"

namespace Tovrel {
namespace {

using Testing::EffectTesting;

class EffectCacheMaintenanceTest : public ::testing::Test {
 protected:
  // fx/0 .. fx/(n-1), each 3000 + i bytes; the ones in `permanent` permanent.
  void Fill(int n, const std::vector<int>& permanent = {}) {
    RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(Folder()));
    for (int i = 0; i < n; ++i) {
      const auto bytes = Bytes(i);
      const bool keep = std::find(permanent.begin(), permanent.end(), i) != permanent.end();
      ASSERT_TRUE(cache->CacheCompiledEffect(WStr(Name(i).c_str()), bytes.data(), bytes.size(), keep));
    }
    cache->ForceSaveToFile();
  }
  static std::wstring Name(int i) { return L"fx/" + std::to_wstring(i); }
  static std::vector<unsigned char> Bytes(int i) {
    return EffectTesting::Bytes(static_cast<std::uint32_t>(i + 1), 3000 + static_cast<std::size_t>(i), true);
  }
  WStr Folder() const { return WStr(dir_.Path().wstring().c_str()); }
  std::wstring CacheFile() const { return dir_.File("norvaneFxoCache.dat"); }
  std::vector<std::string> Stored() const { return EffectTesting::IndexNames(CacheFile()); }
  // Every name left is found byte-exact by a host.
  void ExpectIntact(const std::vector<int>& left) const {
    RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(Folder()));
    EXPECT_EQ(cache->GetNumberOfEffectsInFile(), left.size());
    for (int i : left) {
      Tab<unsigned char> data;
      ASSERT_TRUE(cache->SearchCachedEffects(WStr(Name(i).c_str()), data)) << i;
      EXPECT_EQ(EffectTesting::ToVector(data), Bytes(i)) << i;
    }
  }
  std::uint64_t StoredBytes() const {
    std::uint64_t total = 0;
    for (const auto& entry : EffectTesting::ReadIndex(CacheFile())) total += entry.second.compressedSize;
    return total;
  }
  void SetLastUsed(int i, const CacheTimeStamp& when) {
    EffectTesting::PatchRecord(CacheFile(), "fx/" + std::to_string(i), [&](EffectRecord& r) { r.lastUsed = when; });
  }

  Testing::TempDir dir_;
};

TEST_F(EffectCacheMaintenanceTest, RemoveTakesTheNamedEffectsPermanentOrNotAndNamesTheMissing) {
  Fill(6, {2});
  const auto before = StoredBytes();
  const auto result = EffectCacheMaintenance::Remove(Folder(), {"fx/1", "fx/2", "fx/9", "fx/1"}, false);
  ASSERT_TRUE(result.ok);
  EXPECT_EQ(result.removedEffects, 2u);
  EXPECT_EQ(result.keptEffects, 4u);
  EXPECT_EQ(result.removedBytes + result.keptBytes, before);
  EXPECT_EQ(result.keptBytes, StoredBytes());
  EXPECT_EQ(result.notFound, std::vector<std::string>{"fx/9"});
  ExpectIntact({0, 3, 4, 5});
}

TEST_F(EffectCacheMaintenanceTest, ClearTakesEverythingOrKeepsThePermanent) {
  Fill(5, {1, 3});
  auto result = EffectCacheMaintenance::Clear(Folder(), true, false);
  ASSERT_TRUE(result.ok);
  EXPECT_EQ(result.removedEffects, 3u);
  ExpectIntact({1, 3});
  result = EffectCacheMaintenance::Clear(Folder(), false, false);
  ASSERT_TRUE(result.ok);
  EXPECT_EQ(result.removedEffects, 2u);
  EXPECT_EQ(result.keptEffects, 0u);
  EXPECT_TRUE(Stored().empty());
}

TEST_F(EffectCacheMaintenanceTest, ADryRunReportsAndWritesNothing) {
  Fill(4);
  const auto before = Testing::TempDir::ReadAll(CacheFile());
  const auto result = EffectCacheMaintenance::Clear(Folder(), false, true);
  ASSERT_TRUE(result.ok);
  EXPECT_EQ(result.removedEffects, 4u);
  EXPECT_EQ(Testing::TempDir::ReadAll(CacheFile()), before);
}

TEST_F(EffectCacheMaintenanceTest, TrimBySizeRemovesTheLeastRecentlyUsedFirstAndNeverAPermanentOne) {
  Fill(6, {0});
  for (int i = 0; i < 6; ++i) SetLastUsed(i, CacheTimeStamp{2026, 1, static_cast<std::uint16_t>(10 - i), 0, 0, 0, 0});
  // fx/5 was used longest ago, then fx/4, ...; fx/0 (oldest but one) is permanent.
  const std::uint64_t total = StoredBytes();
  const auto index = EffectTesting::ReadIndex(CacheFile());
  const std::uint64_t limit = total - index.at("fx/5").compressedSize - index.at("fx/4").compressedSize + 1;
  EffectCacheMaintenance::TrimRule rule;
  rule.bySize = true;
  rule.maxStoredBytes = limit;
  const auto result = EffectCacheMaintenance::Trim(Folder(), rule, 0, false);
  ASSERT_TRUE(result.ok);
  EXPECT_EQ(result.removedEffects, 2u);
  EXPECT_LT(result.keptBytes, limit);
  ExpectIntact({0, 1, 2, 3});
  // A size that only the permanent effect's removal could reach is not reached.
  rule.maxStoredBytes = 1;
  const auto rest = EffectCacheMaintenance::Trim(Folder(), rule, 0, false);
  ASSERT_TRUE(rest.ok);
  EXPECT_EQ(rest.removedEffects, 3u);
  EXPECT_GE(rest.keptBytes, rule.maxStoredBytes);
  ExpectIntact({0});
}

TEST_F(EffectCacheMaintenanceTest, TrimByAgeRemovesWhatWasNotUsedForLonger) {
  Fill(4, {3});
  const CacheTimeStamp now{2026, 11, 24, 12, 0, 0, 0};
  SetLastUsed(0, CacheTimeStamp{2026, 11, 24, 11, 0, 0, 0});  // an hour ago
  SetLastUsed(1, CacheTimeStamp{2026, 10, 1, 12, 0, 0, 0});   // 54 days ago
  SetLastUsed(2, CacheTimeStamp{2026, 11, 20, 12, 0, 0, 0});  // 4 days ago
  SetLastUsed(3, CacheTimeStamp{2020, 1, 1, 0, 0, 0, 0});     // permanent
  EffectCacheMaintenance::TrimRule rule;
  rule.byAge = true;
  rule.maxAgeSeconds = 3 * 86400;
  const auto result = EffectCacheMaintenance::Trim(Folder(), rule, now.Seconds(), false);
  ASSERT_TRUE(result.ok);
  EXPECT_EQ(result.removedEffects, 2u);
  ExpectIntact({0, 3});
}

TEST_F(EffectCacheMaintenanceTest, AHostSeesTheChangeAtItsNextSearch) {
  Fill(3);
  RefPtr<EffectCacheSystem> host(new EffectCacheSystem(Folder()));
  Tab<unsigned char> data;
  ASSERT_TRUE(host->SearchCachedEffects(WStr(Name(1).c_str()), data));
  ASSERT_TRUE(EffectCacheMaintenance::Remove(Folder(), {"fx/1"}, false).ok);
  EXPECT_FALSE(host->SearchCachedEffects(WStr(Name(1).c_str()), data));
  ASSERT_TRUE(host->SearchCachedEffects(WStr(Name(2).c_str()), data));
  EXPECT_EQ(EffectTesting::ToVector(data), Bytes(2));
  // The host's own next save keeps the removal.
  const auto bytes = Bytes(7);
  ASSERT_TRUE(host->CacheCompiledEffect(WStr(Name(7).c_str()), bytes.data(), bytes.size(), false));
  host->ForceSaveToFile();
  host.Reset();
  ExpectIntact({0, 2, 7});
}

// A folder of its own holding `names`, each with bytes of `seed`, last
// used at `day` of January 2026, permanent when asked.
void MakeFolder(const std::wstring& folder, const std::vector<std::string>& names, std::uint32_t seed,
                std::uint16_t day, bool permanent) {
  std::filesystem::create_directories(folder);
  {
    RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(WStr(folder.c_str())));
    for (const std::string& name : names) {
      const auto bytes = EffectTesting::Bytes(seed + static_cast<std::uint32_t>(name.size()), 2000 + name.size(), true);
      ASSERT_TRUE(cache->CacheCompiledEffect(WStr(std::wstring(name.begin(), name.end()).c_str()), bytes.data(),
                                             bytes.size(), permanent));
    }
  }
  const std::wstring file = folder + L"/norvaneFxoCache.dat";
  for (const std::string& name : names) {
    EffectTesting::PatchRecord(file, name, [day](EffectRecord& r) { r.lastUsed = CacheTimeStamp{2026, 1, day, 0, 0, 0, 0}; });
  }
}

TEST_F(EffectCacheMaintenanceTest, CompactionShrinksTheFileAfterAClearAndKeepsEveryEffect) {
  Fill(60, {3, 40});
  std::vector<int> left;
  for (int i = 0; i < 60; ++i) {
    if (i % 4 == 1 || i == 3 || i == 40) left.push_back(i);
  }
  std::vector<std::string> gone;
  for (int i = 0; i < 60; ++i) {
    if (std::find(left.begin(), left.end(), i) == left.end()) gone.push_back("fx/" + std::to_string(i));
  }
  ASSERT_TRUE(EffectCacheMaintenance::Remove(Folder(), gone, false).ok);
  const auto before = Testing::TempDir::ReadAll(CacheFile()).size();
  auto result = EffectCacheMaintenance::Compact(Folder());
  ASSERT_TRUE(result.ok);
  EXPECT_EQ(result.fileBytesBefore, before);
  // The head chain and one child file hold the 15 effects left.
  EXPECT_EQ(result.fileBytesAfter, 9u * 8192u);
  EXPECT_LT(result.fileBytesAfter, before);
  EXPECT_EQ(Testing::TempDir::ReadAll(CacheFile()).size(), result.fileBytesAfter);
  ExpectIntact(left);
  // Compacting a compact file changes nothing.
  const auto compacted = Testing::TempDir::ReadAll(CacheFile());
  result = EffectCacheMaintenance::Compact(Folder());
  ASSERT_TRUE(result.ok);
  EXPECT_EQ(result.fileBytesAfter, result.fileBytesBefore);
  EXPECT_EQ(Testing::TempDir::ReadAll(CacheFile()), compacted);
  // A cleared cache keeps its head chain and the child file of its index.
  Fill(60);
  ASSERT_TRUE(EffectCacheMaintenance::Clear(Folder(), false, false).ok);
  result = EffectCacheMaintenance::Compact(Folder());
  ASSERT_TRUE(result.ok);
  EXPECT_GT(result.fileBytesBefore, 9u * 8192u);
  EXPECT_EQ(result.fileBytesAfter, 9u * 8192u);
  ExpectIntact({});
}

TEST_F(EffectCacheMaintenanceTest, AMergeKeepsTheNewestCopyOfEveryNameByteForByte) {
  const std::wstring base = dir_.Path().wstring();
  MakeFolder(base + L"/dest", {"a", "bb", "ccc"}, 100, 10, false);
  MakeFolder(base + L"/one", {"bb", "dddd"}, 200, 20, false);          // bb newer than dest's
  MakeFolder(base + L"/two", {"a", "dddd", "eeeee"}, 300, 5, true);     // a and dddd older; eeeee new, permanent
  MakeFolder(base + L"/three", {"ccc", "dddd"}, 400, 25, false);       // newest ccc and dddd
  const auto result = EffectCacheMaintenance::Merge(
      WStr((base + L"/dest").c_str()),
      {WStr((base + L"/one").c_str()), WStr((base + L"/two").c_str()), WStr((base + L"/three").c_str()),
       WStr((base + L"/missing").c_str())});
  ASSERT_TRUE(result.ok);
  EXPECT_EQ(result.unreadableSources, std::vector<std::size_t>{3});
  EXPECT_EQ(result.damagedEffects, 0u);
  EXPECT_EQ(result.copiedEffects, 4u);  // bb (one), ccc and dddd (three), eeeee (two)
  EXPECT_EQ(result.keptEffects, 1u);    // a: the destination's is newer
  const auto index = EffectTesting::ReadIndex(base + L"/dest/norvaneFxoCache.dat");
  ASSERT_EQ(index.size(), 5u);
  EXPECT_EQ(index.at("eeeee").permanent, 1u);
  EXPECT_EQ(index.at("bb").lastUsed, (CacheTimeStamp{2026, 1, 20, 0, 0, 0, 0}));
  const std::map<std::string, std::uint32_t> seedOf{{"a", 100}, {"bb", 200}, {"ccc", 400}, {"dddd", 400}, {"eeeee", 300}};
  RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(WStr((base + L"/dest").c_str())));
  for (const auto& item : seedOf) {
    Tab<unsigned char> data;
    const std::wstring name(item.first.begin(), item.first.end());
    ASSERT_TRUE(cache->SearchCachedEffects(WStr(name.c_str()), data)) << item.first;
    EXPECT_EQ(EffectTesting::ToVector(data),
              EffectTesting::Bytes(item.second + static_cast<std::uint32_t>(item.first.size()), 2000 + item.first.size(), true))
        << item.first;
  }
  // The sources are as they were.
  EXPECT_EQ(EffectTesting::IndexNames(base + L"/one/norvaneFxoCache.dat").size(), 2u);
}

}  // namespace
}  // namespace Tovrel
