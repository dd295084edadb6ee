#include "tovrel/EffectCacheSystem.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "support/ChildLauncher.h"
#include "support/ChildProcess.h"
#include "support/EffectTesting.h"
#include "support/TempDir.h"

namespace Tovrel {
namespace {

using Testing::ChildLauncher;
using Testing::EffectTesting;
using Testing::TempDir;

RefPtr<EffectCacheSystem> OpenCache(const std::wstring& folder) {
  return RefPtr<EffectCacheSystem>(new EffectCacheSystem(WStr(folder.c_str())));
}

// Seeded effect i of a run: its name, size (log-uniform between bounds) and bytes.
struct Effect {
  std::wstring name;
  std::vector<unsigned char> bytes;
};

Effect MakeEffect(std::uint32_t seed, std::uint32_t i, double smallest, double largest) {
  std::mt19937 random(seed * 7919u + i);
  const double u = std::uniform_real_distribution<double>(0.0, 1.0)(random);
  const auto size = static_cast<std::size_t>(std::exp(std::log(smallest) + u * (std::log(largest) - std::log(smallest))));
  return Effect{L"fx/" + std::to_wstring(seed) + L"/" + std::to_wstring(i),
                EffectTesting::Bytes(seed * 100003u + i, size, i % 3 != 0)};
}

void SetProfileLog(const std::string& value) {
  static std::string setting[16];
  static int next = 0;
  std::string& slot = setting[next++ % 16];
  slot = "NORVANEEFFECTCACHEPROFILE=" + value;
  putenv(&slot[0]);
}

TEST(EffectCacheSystemTest, TheCacheFilePathIsTheFolderAsPassed) {
  TempDir dir;
  const std::wstring folder = dir.Path().wstring();
  RefPtr<EffectCacheSystem> cache = OpenCache(folder);
  EXPECT_EQ(std::wstring(cache->GetCacheFilePath().data()), folder);
  EXPECT_TRUE(cache->IsEnabled());
}

TEST(EffectCacheSystemTest, TheLargestEffectIsAcceptedAndOneByteMoreIsNot) {
  TempDir dir;
  RefPtr<EffectCacheSystem> cache = OpenCache(dir.Path().wstring());
  const std::vector<unsigned char> bytes(1048577, 3);
  EXPECT_FALSE(cache->CacheCompiledEffect(WStr(L"a"), bytes.data(), bytes.size(), false));
  EXPECT_FALSE(cache->CacheCompiledEffect(WStr(L"a"), bytes.data(), 0, false));
  EXPECT_FALSE(cache->CacheCompiledEffect(WStr(L"a"), nullptr, 5, false));
  EXPECT_TRUE(cache->CacheCompiledEffect(WStr(L"a"), bytes.data(), 1048576, false));
}

TEST(EffectCacheSystemTest, TwoThousandEffectsAreFoundByteExactByAnotherObject) {
  TempDir dir;
  const std::wstring folder = dir.Path().wstring();
  constexpr std::uint32_t kCount = 2000;
  {
    RefPtr<EffectCacheSystem> cache = OpenCache(folder);
    for (std::uint32_t i = 0; i < kCount; ++i) {
      const Effect e = MakeEffect(1, i, 1, 1048576);
      ASSERT_TRUE(cache->CacheCompiledEffect(WStr(e.name.c_str()), e.bytes.data(), e.bytes.size(), i % 10 == 0));
    }
  }
  RefPtr<EffectCacheSystem> cache = OpenCache(folder);
  EXPECT_EQ(cache->GetNumberOfEffectsInFile(), kCount);
  for (std::uint32_t i = 0; i < kCount; ++i) {
    const Effect e = MakeEffect(1, i, 1, 1048576);
    Tab<unsigned char> data;
    ASSERT_TRUE(cache->SearchCachedEffects(WStr(e.name.c_str()), data)) << i;
    ASSERT_EQ(EffectTesting::ToVector(data), e.bytes) << i;
  }
  Tab<unsigned char> data;
  EXPECT_FALSE(cache->SearchCachedEffects(WStr(L"fx/none"), data));
}

TEST(EffectCacheSystemTest, AStoredNameIsReplacedByItsNewBytes) {
  TempDir dir;
  const std::wstring folder = dir.Path().wstring();
  const auto first = EffectTesting::Bytes(1, 4000, true);
  const auto second = EffectTesting::Bytes(2, 6000, false);
  {
    RefPtr<EffectCacheSystem> cache = OpenCache(folder);
    ASSERT_TRUE(cache->CacheCompiledEffect(WStr(L"fx"), first.data(), first.size(), false));
  }
  {
    RefPtr<EffectCacheSystem> cache = OpenCache(folder);
    ASSERT_TRUE(cache->CacheCompiledEffect(WStr(L"fx"), second.data(), second.size(), false));
  }
  RefPtr<EffectCacheSystem> cache = OpenCache(folder);
  Tab<unsigned char> data;
  ASSERT_TRUE(cache->SearchCachedEffects(WStr(L"fx"), data));
  EXPECT_EQ(EffectTesting::ToVector(data), second);
  EXPECT_EQ(cache->GetNumberOfEffectsInFile(), 1u);
}

TEST(EffectCacheSystemTest, EachObjectAppendsItsOwnProfileBlock) {
  TempDir dir;
  const std::wstring folder = dir.Path().wstring();
  const std::string log = ChildLauncher::Narrow(dir.File("profile.log"));
  SetProfileLog(log);
  const auto bytes = EffectTesting::Bytes(5, 50000, true);
  {
    RefPtr<EffectCacheSystem> writer = OpenCache(folder);
    ASSERT_TRUE(writer->CacheCompiledEffect(WStr(L"fx"), bytes.data(), bytes.size(), false));
  }
  {
    RefPtr<EffectCacheSystem> reader = OpenCache(folder);
    Tab<unsigned char> data;
    ASSERT_TRUE(reader->SearchCachedEffects(WStr(L"fx"), data));
  }
  SetProfileLog("");
  { RefPtr<EffectCacheSystem> silent = OpenCache(folder); }
  const auto raw = TempDir::ReadAll(dir.File("profile.log"));
  const std::string text(raw.begin(), raw.end());
  // The writer's block has its rate; the reader compressed nothing, so its
  // block has only the two time lines; the last object wrote nothing.
  const std::size_t rate = text.find("Compression Rate: ");
  ASSERT_EQ(rate, 0u);
  EXPECT_EQ(text.find("Compression Rate: ", rate + 1), std::string::npos);
  std::size_t lines = 0;
  for (char c : text) lines += c == '\n' ? 1 : 0;
  EXPECT_EQ(lines, 5u);
  EXPECT_NE(text.find(" %\nCompression Time: "), std::string::npos);
  EXPECT_NE(text.find("seconds\nCompression Time: "), std::string::npos);
}

// A host process for the multi-process test: caches its own 500 effects,
// looks for the other processes' effects as it goes, and saves every 50.
TOVREL_CHILD_ROLE(effect_host) {
  if (argc < 2) return 2;
  const std::wstring folder = ChildLauncher::Wide(argv[0]);
  const auto seed = static_cast<std::uint32_t>(std::atoi(argv[1]));
  RefPtr<EffectCacheSystem> cache = OpenCache(folder);
  if (!cache->IsEnabled()) return 3;
  for (std::uint32_t i = 0; i < 500; ++i) {
    const Effect e = MakeEffect(seed, i, 2048, 16384);
    if (!cache->CacheCompiledEffect(WStr(e.name.c_str()), e.bytes.data(), e.bytes.size(), false)) return 4;
    const std::uint32_t other = 1 + (seed + i) % 4;
    if (other != seed) {
      const Effect theirs = MakeEffect(other, i / 2, 2048, 16384);
      Tab<unsigned char> data;
      if (cache->SearchCachedEffects(WStr(theirs.name.c_str()), data) && EffectTesting::ToVector(data) != theirs.bytes) {
        return 5;  // a hit must be byte-exact
      }
    }
    if (i % 50 == 49) cache->ForceSaveToFile();
  }
  return cache->IsEnabled() ? 0 : 6;
}

TEST(EffectCacheSystemTest, FourProcessesShareOneFolderWithoutLosingAnEffect) {
  TempDir dir;
  const std::string folder = ChildLauncher::Narrow(dir.Path().wstring());
  std::vector<std::unique_ptr<PlatformProcess>> hosts;
  for (int seed = 1; seed <= 4; ++seed) {
    hosts.push_back(ChildLauncher::Start("effect_host", {folder, std::to_string(seed)}));
    ASSERT_NE(hosts.back(), nullptr);
  }
  for (auto& host : hosts) EXPECT_EQ(ChildLauncher::Finish(*host), 0);
  RefPtr<EffectCacheSystem> cache = OpenCache(dir.Path().wstring());
  EXPECT_EQ(cache->GetNumberOfEffectsInFile(), 2000u);
  for (std::uint32_t seed = 1; seed <= 4; ++seed) {
    for (std::uint32_t i = 0; i < 500; ++i) {
      const Effect e = MakeEffect(seed, i, 2048, 16384);
      Tab<unsigned char> data;
      ASSERT_TRUE(cache->SearchCachedEffects(WStr(e.name.c_str()), data)) << seed << "/" << i;
      ASSERT_EQ(EffectTesting::ToVector(data), e.bytes) << seed << "/" << i;
    }
  }
}

}  // namespace
}  // namespace Tovrel
