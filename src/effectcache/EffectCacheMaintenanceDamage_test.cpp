// Maintenance on a cache file whose tables are damaged: every operation
// refuses before it changes anything, whatever the damage.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "effectcache/CacheTimeStamp.h"
#include "effectcache/EffectCacheMaintenance.h"
#include "support/EffectTesting.h"
#include "support/PackagePatch.h"
#include "support/TempDir.h"
#include "tovrel/EffectCacheSystem.h"

namespace Tovrel {
namespace {

using Testing::EffectTesting;
using Testing::PackagePatch;
using Testing::TempDir;

class EffectCacheMaintenanceDamageTest : public ::testing::Test {
 protected:
  // 50 effects of 1 to 40 KiB, hardly compressible: tails in several
  // child files, and chains of whole pages.
  static void Fill(const std::filesystem::path& folder) {
    RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(WStr(folder.wstring().c_str())));
    for (int i = 0; i < 50; ++i) {
      const auto bytes = EffectTesting::Bytes(static_cast<std::uint32_t>(i + 7), 1000 + (i * 7919) % 40000, false);
      ASSERT_TRUE(cache->CacheCompiledEffect(WStr((L"fx/" + std::to_wstring(i)).c_str()), bytes.data(), bytes.size(),
                                             i % 10 == 0));
    }
    cache->ForceSaveToFile();
  }
  WStr Folder() const { return WStr(dir_.Path().wstring().c_str()); }
  std::filesystem::path File() const { return dir_.Path() / "norvaneFxoCache.dat"; }
  std::vector<std::uint8_t> Bytes() const { return TempDir::ReadAll(File().wstring()); }
  // A refused operation leaves no journal.
  bool JournalLeft() const { return std::filesystem::exists(dir_.Path() / "norvaneFxoCache.dat-journal"); }

  // Each operation, on the damaged file: refused, damaged said, nothing written.
  void ExpectEveryOperationRefused() {
    ASSERT_EQ(EffectCacheMaintenance::CheckFolder(Folder()), EffectCacheMaintenance::Check::kDamaged);
    const std::vector<std::uint8_t> before = Bytes();
    const auto removed = EffectCacheMaintenance::Remove(Folder(), {"fx/1", "fx/2"}, false);
    EXPECT_TRUE(removed.damaged && !removed.ok);
    const auto cleared = EffectCacheMaintenance::Clear(Folder(), false, false);
    EXPECT_TRUE(cleared.damaged && !cleared.ok);
    EffectCacheMaintenance::TrimRule rule;
    rule.bySize = true;
    rule.maxStoredBytes = 1;
    const auto trimmed = EffectCacheMaintenance::Trim(Folder(), rule, CacheTimeStamp::Now().Seconds(), false);
    EXPECT_TRUE(trimmed.damaged && !trimmed.ok);
    const auto compacted = EffectCacheMaintenance::Compact(Folder());
    EXPECT_TRUE(compacted.damaged && !compacted.ok);
    bool damaged = false;
    EXPECT_FALSE(EffectCacheMaintenance::ZeroStatistics(Folder(), &damaged));
    EXPECT_TRUE(damaged);
    const auto into = EffectCacheMaintenance::Merge(Folder(), {WStr(healthy_.Path().wstring().c_str())});
    EXPECT_TRUE(into.damaged && !into.ok);
    EXPECT_EQ(Bytes(), before);
    EXPECT_FALSE(JournalLeft());

    // Merged from, the damaged cache is a source passed over: the healthy
    // destination takes nothing of it.
    const auto from = EffectCacheMaintenance::Merge(WStr(healthy_.Path().wstring().c_str()), {Folder()});
    EXPECT_TRUE(from.ok);
    EXPECT_EQ(from.unreadableSources, std::vector<std::size_t>{0});
    EXPECT_EQ(from.copiedEffects, 0u);
    EXPECT_EQ(EffectTesting::IndexNames((healthy_.Path() / "norvaneFxoCache.dat").wstring()).size(), 1u);
    EXPECT_EQ(Bytes(), before);
  }

  void SetUp() override {
    Fill(dir_.Path());
    RefPtr<EffectCacheSystem> other(new EffectCacheSystem(WStr(healthy_.Path().wstring().c_str())));
    const std::vector<unsigned char> bytes(100, 1);
    ASSERT_TRUE(other->CacheCompiledEffect(WStr(L"other"), bytes.data(), bytes.size(), false));
  }

  TempDir dir_;
  TempDir healthy_;
};

TEST_F(EffectCacheMaintenanceDamageTest, ASoundFileIsSound) {
  EXPECT_EQ(EffectCacheMaintenance::CheckFolder(Folder()), EffectCacheMaintenance::Check::kSound);
  TempDir empty;
  EXPECT_EQ(EffectCacheMaintenance::CheckFolder(WStr(empty.Path().wstring().c_str())),
            EffectCacheMaintenance::Check::kNoFile);
}

// The tail of a stream that its child file does not list where the tail
// record says (the damage a changed byte in the tail records makes).
TEST_F(EffectCacheMaintenanceDamageTest, ATailRecordOutOfItsPlaceRefusesEveryOperation) {
  PackagePatch patch{File()};
  const std::uint64_t place = patch.Tail(3, PackagePatch::kTailIndex);
  patch.Set(place, patch.Get(place) + 1).Save();
  ExpectEveryOperationRefused();
}

TEST_F(EffectCacheMaintenanceDamageTest, APageInTwoChainsRefusesEveryOperation) {
  PackagePatch patch{File()};
  std::uint64_t a = ~std::uint64_t{0};
  std::uint64_t b = ~std::uint64_t{0};
  for (std::uint64_t i = 0; b == ~std::uint64_t{0}; ++i) {
    if (patch.Get(patch.Stream(i, PackagePatch::kWholePages)) == 0) continue;
    (a == ~std::uint64_t{0} ? a : b) = i;
  }
  patch.Set(patch.Stream(b, PackagePatch::kFirstPage), patch.Get(patch.Stream(a, PackagePatch::kFirstPage))).Save();
  ExpectEveryOperationRefused();
}

TEST_F(EffectCacheMaintenanceDamageTest, AStreamOfNoEffectRefusesEveryOperation) {
  EffectTesting::PatchRecord(File().wstring(), "fx/4", [](EffectRecord& r) { r.streamId += 100000; });
  ExpectEveryOperationRefused();
}

}  // namespace
}  // namespace Tovrel
