// A cache whose file is whole serves it on a disk with no space left:
// opening writes nothing that would need space (a trim the size rule asks
// for is left to an open that can write it), every stored effect is found,
// and new effects wait in memory.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "effectcache/EffectCacheImpl.h"
#include "support/EffectTesting.h"
#include "support/InstalledFileSystem.h"

namespace Tovrel {
namespace {

using Testing::EffectTesting;

const std::wstring kFolder = L"fxfull";
const std::wstring kFile = L"fxfull/norvaneFxoCache.dat";

std::wstring NameOf(int i) { return L"fx/" + std::to_wstring(i); }
std::vector<unsigned char> BytesOf(int i) {
  return EffectTesting::Bytes(static_cast<std::uint32_t>(i + 3), 2000 + static_cast<std::size_t>(i) * 900, false);
}

std::uint64_t UsedBytes(const MemoryFileSystem& files) {
  std::uint64_t used = 0;
  for (const std::wstring& file : files.ListFiles()) used += files.ReadAll(file).size();
  return used;
}

class EffectCacheFullDiskTest : public ::testing::TestWithParam<std::uint64_t> {
 protected:
  void SetUp() override {
    EffectCacheImpl cache(WStr(kFolder.c_str()), 2);
    for (int i = 0; i < 40; ++i) {
      const auto bytes = BytesOf(i);
      ASSERT_TRUE(cache.CacheCompiledEffect(WStr(NameOf(i).c_str()), bytes.data(), bytes.size(), false));
    }
    cache.ForceSaveToFile();
    ASSERT_TRUE(cache.IsEnabled());
  }

  Testing::InstalledFileSystem files_;
};

TEST_P(EffectCacheFullDiskTest, EveryStoredEffectIsFoundAndNothingWritten) {
  MemoryFileSystem& memory = files_.Memory();
  const std::vector<std::uint8_t> before = memory.ReadAll(kFile);
  memory.SetCapacity(UsedBytes(memory) + GetParam());
  {
    EffectCacheImpl cache(WStr(kFolder.c_str()), 2);
    ASSERT_TRUE(cache.IsEnabled()) << GetParam() << " bytes free";
    EXPECT_EQ(cache.GetNumberOfEffectsInFile(), 40u);
    for (int i = 0; i < 40; ++i) {
      Tab<unsigned char> found;
      ASSERT_TRUE(cache.SearchCachedEffects(WStr(NameOf(i).c_str()), found)) << i;
      EXPECT_EQ(EffectTesting::ToVector(found), BytesOf(i)) << i;
    }
    // A new effect waits in memory and is found there.
    const std::vector<unsigned char> fresh(500, 0x42);
    EXPECT_TRUE(cache.CacheCompiledEffect(WStr(L"fresh"), fresh.data(), fresh.size(), false));
    Tab<unsigned char> found;
    EXPECT_TRUE(cache.SearchCachedEffects(WStr(L"fresh"), found));
  }
  EXPECT_EQ(memory.ReadAll(kFile), before);
  EXPECT_FALSE(memory.Exists(L"fxfull/norvaneFxoCache.dat-journal"));
}

INSTANTIATE_TEST_SUITE_P(FreeBytes, EffectCacheFullDiskTest, ::testing::Values(0u, 1u, 4096u, 32768u));

}  // namespace
}  // namespace Tovrel
