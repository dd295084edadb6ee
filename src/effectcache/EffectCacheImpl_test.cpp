#include "effectcache/EffectCacheImpl.h"

#include <gtest/gtest.h>

#include <algorithm>

#include <memory>
#include <string>
#include <vector>

#include "effectcache/CacheTimeStamp.h"
#include "effectcache/EffectCacheHeader.h"
#include "effectcache/EffectRecord.h"
#include "host/Path.h"
#include "pagefile/LittleEndian.h"
#include "pagefile/PageGeometry.h"
#include "platform/FileFaults.h"
#include "platform/WideText.h"
#include "effectcache/EffectNameOrder.h"
#include "support/EffectTesting.h"
#include "support/PackageLayout.h"
#include "support/TempDir.h"

namespace Tovrel {
namespace {

using Testing::EffectTesting;
using Testing::TempDir;

class EffectCacheImplTest : public ::testing::Test {
 protected:
  void TearDown() override { FileFaults::Reset(); }

  std::unique_ptr<EffectCacheImpl> Open(std::uint64_t limit = EffectCacheImpl::kCacheBytesLimit) {
    return std::unique_ptr<EffectCacheImpl>(new EffectCacheImpl(WStr(folder_.c_str()), 2, limit));
  }
  std::wstring CacheFile() const { return dir_.File("norvaneFxoCache.dat"); }

  TempDir dir_;
  std::wstring folder_ = dir_.Path().wstring();
};

TEST_F(EffectCacheImplTest, AFolderWithoutATrailingSeparatorGetsOne) {
  auto cache = Open();
  const std::wstring sep(1, NorvaneSDK::Util::Path::Separator());
  EXPECT_EQ(std::wstring(cache->GetCacheFileFullPath().data()), folder_ + sep + L"norvaneFxoCache.dat");
  EXPECT_EQ(std::wstring(cache->GetCacheFilePath().data()), folder_);
  EXPECT_TRUE(cache->IsEnabled());
}

TEST_F(EffectCacheImplTest, AFolderEndingInASeparatorIsUsedAsItIs) {
  const std::wstring withSeparator = folder_ + NorvaneSDK::Util::Path::Separator();
  EffectCacheImpl cache(WStr(withSeparator.c_str()), 2);
  EXPECT_EQ(std::wstring(cache.GetCacheFileFullPath().data()), withSeparator + L"norvaneFxoCache.dat");
  EXPECT_EQ(std::wstring(cache.GetCacheFilePath().data()), withSeparator);
}

TEST_F(EffectCacheImplTest, AnEmptyCacheOpensAsItIsAndIsNotMadeAgain) {
  { Open(); }
  const auto made = TempDir::ReadAll(CacheFile());
  ASSERT_FALSE(made.empty());
  FileFaults::StartCounting();
  {
    auto cache = Open();
    EXPECT_TRUE(cache->IsEnabled());
    EXPECT_EQ(cache->GetNumberOfEffectsInFile(), 0u);
  }
  EXPECT_EQ(FileFaults::Calls(FileCall::kWrite), 0u);  // read, not replaced by a new empty cache
  EXPECT_EQ(TempDir::ReadAll(CacheFile()), made);
}

TEST_F(EffectCacheImplTest, AnEmptyFolderMakesAnUnusableCache) {
  EffectCacheImpl cache(WStr(L""), 2);
  EXPECT_TRUE(cache.GetCacheFileFullPath().isNull());
  EXPECT_FALSE(cache.IsEnabled());
  const unsigned char byte = 1;
  EXPECT_FALSE(cache.CacheCompiledEffect(WStr(L"a"), &byte, 1, false));
  Tab<unsigned char> data;
  EXPECT_FALSE(cache.SearchCachedEffects(WStr(L"a"), data));
}

TEST_F(EffectCacheImplTest, SharedObjectNamesKeepOnlyAsciiLettersAndDigits) {
  EXPECT_EQ(CacheFileNames::SharedObjectBaseName(L"C:\\Cache\\norvaneFxoCache.dat"), L"C__Cache_norvaneFxoCache_dat");
  EXPECT_EQ(CacheFileNames::SharedObjectBaseName(L"/tmp/caf\u00e9/x9"), L"_tmp_caf__x9");
}

TEST_F(EffectCacheImplTest, EffectSizesOutsideOneByteToOneMebibyteAreRefused) {
  auto cache = Open();
  const std::vector<unsigned char> big(EffectCacheImpl::kEffectSizeLimit + 1, 7);
  EXPECT_FALSE(cache->CacheCompiledEffect(WStr(L"fx"), big.data(), 0, false));
  EXPECT_FALSE(cache->CacheCompiledEffect(WStr(L"fx"), big.data(), big.size(), false));
  EXPECT_FALSE(cache->CacheCompiledEffect(WStr(L"fx"), nullptr, 10, false));
  EXPECT_FALSE(cache->CacheCompiledEffect(WStr(L""), big.data(), 10, false));
  EXPECT_EQ(cache->GetNumberOfEffectsInMemory(), 0u);
  EXPECT_TRUE(cache->CacheCompiledEffect(WStr(L"fx"), big.data(), big.size() - 1, false));
  EXPECT_EQ(cache->GetNumberOfEffectsInMemory(), 1u);
}

TEST_F(EffectCacheImplTest, NamesLongerThanTheLimitAreRefused) {
  auto cache = Open();
  const unsigned char byte = 1;
  EXPECT_FALSE(cache->CacheCompiledEffect(WStr(std::wstring(65537, L'n')), &byte, 1, false));
  EXPECT_TRUE(cache->CacheCompiledEffect(WStr(std::wstring(65536, L'n')), &byte, 1, false));
}

TEST_F(EffectCacheImplTest, CachingANameTwiceKeepsTheSecondAndCountsTwice) {
  auto cache = Open();
  const auto first = EffectTesting::Bytes(1, 100, true);
  const auto second = EffectTesting::Bytes(2, 300, false);
  ASSERT_TRUE(cache->CacheCompiledEffect(WStr(L"fx"), first.data(), first.size(), true));
  ASSERT_TRUE(cache->CacheCompiledEffect(WStr(L"fx"), second.data(), second.size(), false));
  EXPECT_EQ(cache->GetPendingBytes(), (44u + 8 + 2 + 8 + 100) + (44u + 8 + 2 + 8 + 300));
  EXPECT_EQ(cache->GetNumberOfEffectsInMemory(), 1u);
  Tab<unsigned char> data;
  ASSERT_TRUE(cache->SearchCachedEffects(WStr(L"fx"), data));
  EXPECT_EQ(EffectTesting::ToVector(data), second);
  cache->ForceSaveToFile();
  cache.reset();
  EXPECT_EQ(EffectTesting::ReadIndex(CacheFile()).at("fx").permanent, 0u);
}

TEST_F(EffectCacheImplTest, APendingEffectWinsOverTheStoredOne) {
  const auto stored = EffectTesting::Bytes(3, 500, true);
  const auto pending = EffectTesting::Bytes(4, 700, true);
  {
    auto cache = Open();
    ASSERT_TRUE(cache->CacheCompiledEffect(WStr(L"fx"), stored.data(), stored.size(), false));
  }
  auto cache = Open();
  ASSERT_TRUE(cache->CacheCompiledEffect(WStr(L"fx"), pending.data(), pending.size(), false));
  Tab<unsigned char> data;
  ASSERT_TRUE(cache->SearchCachedEffects(WStr(L"fx"), data));
  EXPECT_EQ(EffectTesting::ToVector(data), pending);
  EXPECT_EQ(cache->GetNumberOfEffectsInFile(), 1u);
}

TEST_F(EffectCacheImplTest, AMissingNameBesideAPendingOneMissesAndHandsBackNothing) {
  auto cache = Open();
  const auto pending = EffectTesting::Bytes(5, 900, true);
  ASSERT_TRUE(cache->CacheCompiledEffect(WStr(L"fx/m"), pending.data(), pending.size(), false));
  // Names that sort right before and after it, that it begins with, and
  // that begin with it; none is stored anywhere.
  for (const wchar_t* missing : {L"fx/l", L"fx/n", L"fx/", L"fx/mm", L"fx/M", L"x/m", L"fx/m/"}) {
    Tab<unsigned char> data;
    EXPECT_FALSE(cache->SearchCachedEffects(WStr(missing), data)) << WideText::ToUtf8(missing);
    EXPECT_EQ(data.Count(), 0u) << WideText::ToUtf8(missing);
  }
  Tab<unsigned char> data;
  ASSERT_TRUE(cache->SearchCachedEffects(WStr(L"fx/m"), data));
  EXPECT_EQ(EffectTesting::ToVector(data), pending);
  EXPECT_EQ(cache->GetNumberOfEffectsInMemory(), 1u);
}

TEST_F(EffectCacheImplTest, DisablingIsAdvisoryOnly) {
  auto cache = Open();
  cache->SetEnabled(false);
  EXPECT_FALSE(cache->IsEnabled());
  const auto bytes = EffectTesting::Bytes(5, 64, true);
  ASSERT_TRUE(cache->CacheCompiledEffect(WStr(L"fx"), bytes.data(), bytes.size(), false));
  Tab<unsigned char> data;
  EXPECT_TRUE(cache->SearchCachedEffects(WStr(L"fx"), data));
  cache->SetEnabled(true);
  EXPECT_TRUE(cache->IsEnabled());
}

TEST_F(EffectCacheImplTest, ShorterNamesListAndSaveFirst) {
  {
    auto cache = Open();
    for (const wchar_t* name : {L"zzz", L"ab", L"b", L"aaa", L"zz"}) {
      const auto bytes = EffectTesting::Bytes(6, 10, true);
      ASSERT_TRUE(cache->CacheCompiledEffect(WStr(name), bytes.data(), bytes.size(), false));
    }
    cache->ForceSaveToFile();
    const std::wstring list = dir_.File("list.txt");
    cache->ListCachedEffects(list.c_str());
    const auto text = TempDir::ReadAll(list);
    EXPECT_EQ(std::string(text.begin(), text.end()),
              "\xEF\xBB\xBF"
              "Name: b Size: 10 Permanent: 0\n"
              "Name: ab Size: 10 Permanent: 0\n"
              "Name: zz Size: 10 Permanent: 0\n"
              "Name: aaa Size: 10 Permanent: 0\n"
              "Name: zzz Size: 10 Permanent: 0\n");
  }
  EXPECT_EQ(EffectTesting::IndexNames(CacheFile()), (std::vector<std::string>{"b", "ab", "zz", "aaa", "zzz"}));
}

TEST_F(EffectCacheImplTest, ANewFileHasAOneByteIndexReplacedByTheFirstSave) {
  {
    auto cache = Open();
    ASSERT_TRUE(cache->IsEnabled());
  }
  EffectTesting::FileShape shape = EffectTesting::Shape(CacheFile());
  EXPECT_EQ(shape.header.effectCount, 0u);
  EXPECT_EQ(shape.indexSize, 1u);
  EXPECT_EQ(shape.streams, 1u);
  {
    auto cache = Open();
    const auto bytes = EffectTesting::Bytes(7, 1000, true);
    ASSERT_TRUE(cache->CacheCompiledEffect(WStr(L"fx1"), bytes.data(), bytes.size(), false));
  }
  shape = EffectTesting::Shape(CacheFile());
  EXPECT_EQ(shape.header.effectCount, 1u);
  EXPECT_EQ(shape.indexSize, 44u + 8 + 3);
  EXPECT_EQ(shape.streams, 2u);
}

TEST_F(EffectCacheImplTest, SavingWithNothingPendingWritesNothing) {
  {
    auto cache = Open();
    const auto bytes = EffectTesting::Bytes(8, 1000, true);
    ASSERT_TRUE(cache->CacheCompiledEffect(WStr(L"fx"), bytes.data(), bytes.size(), false));
  }
  const auto before = TempDir::ReadAll(CacheFile());
  {
    auto cache = Open();
    Tab<unsigned char> data;
    ASSERT_TRUE(cache->SearchCachedEffects(WStr(L"fx"), data));  // refreshes the in-memory stamp only
    cache->ForceSaveToFile();
  }
  EXPECT_EQ(TempDir::ReadAll(CacheFile()), before);
}

TEST_F(EffectCacheImplTest, RecachingAStoredNameReplacesItsStream) {
  for (int round = 0; round < 3; ++round) {
    auto cache = Open();
    const auto bytes = EffectTesting::Bytes(9 + round, 2000 + round, true);
    ASSERT_TRUE(cache->CacheCompiledEffect(WStr(L"fx"), bytes.data(), bytes.size(), false));
    cache->ForceSaveToFile();
    EXPECT_EQ(cache->GetNumberOfEffectsInFile(), 1u);
  }
  const auto shape = EffectTesting::Shape(CacheFile());
  EXPECT_EQ(shape.streams, 2u);
  EXPECT_EQ(EffectTesting::ReadIndex(CacheFile()).at("fx").uncompressedSize, 2002u);
}

TEST_F(EffectCacheImplTest, WithEverythingPermanentAndOverTheLimitASaveDropsThePendingEffects) {
  const auto bytes = EffectTesting::Bytes(12, 20000, false);
  {
    auto cache = Open();
    ASSERT_TRUE(cache->CacheCompiledEffect(WStr(L"keep"), bytes.data(), bytes.size(), true));
  }
  auto cache = Open(30000);
  ASSERT_TRUE(cache->CacheCompiledEffect(WStr(L"new"), bytes.data(), bytes.size(), false));
  cache->ForceSaveToFile();
  EXPECT_TRUE(cache->IsEnabled());
  EXPECT_EQ(cache->GetNumberOfEffectsInMemory(), 0u);
  EXPECT_EQ(cache->GetNumberOfEffectsInFile(), 1u);
  Tab<unsigned char> data;
  EXPECT_FALSE(cache->SearchCachedEffects(WStr(L"new"), data));
  EXPECT_TRUE(cache->SearchCachedEffects(WStr(L"keep"), data));
}

TEST_F(EffectCacheImplTest, TooLittleRoomForThePendingBytesDropsThemAndTheSaveSucceeds) {
  auto cache = Open(1000);
  const auto bytes = EffectTesting::Bytes(13, 5000, true);
  ASSERT_TRUE(cache->CacheCompiledEffect(WStr(L"fx"), bytes.data(), bytes.size(), false));
  cache->ForceSaveToFile();
  EXPECT_TRUE(cache->IsEnabled());
  EXPECT_EQ(cache->GetNumberOfEffectsInMemory(), 0u);
  EXPECT_EQ(cache->GetNumberOfEffectsInFile(), 0u);
}

TEST_F(EffectCacheImplTest, TrimmingRemovesTheOldestNonPermanentEffectsUntilBelowTheLimit) {
  std::uint64_t total = 0;
  {
    auto cache = Open();
    for (int i = 0; i < 6; ++i) {
      const auto bytes = EffectTesting::Bytes(20 + i, 3000, false);
      ASSERT_TRUE(cache->CacheCompiledEffect(WStr(std::to_wstring(i)), bytes.data(), bytes.size(), i == 0));
      cache->ForceSaveToFile();  // one save each: last-used times in order 0..5
    }
  }
  total = EffectTesting::Shape(CacheFile()).totalStreamSize;
  const std::uint64_t perEffect = EffectTesting::ReadIndex(CacheFile()).at("1").compressedSize + 8;
  // A limit exactly at the total still trims: the total must fall strictly below it.
  {
    auto cache = Open(total);
    EXPECT_EQ(cache->GetNumberOfEffectsInFile(), 5u);
  }
  auto names = EffectTesting::IndexNames(CacheFile());
  EXPECT_EQ(names, (std::vector<std::string>{"0", "2", "3", "4", "5"}));
  {
    auto cache = Open(total - 3 * perEffect);
    EXPECT_EQ(cache->GetNumberOfEffectsInFile(), 3u);
  }
  names = EffectTesting::IndexNames(CacheFile());
  EXPECT_EQ(names, (std::vector<std::string>{"0", "4", "5"}));
  {
    auto cache = Open(1);  // only the permanent effect can stay
    EXPECT_EQ(cache->GetNumberOfEffectsInFile(), 1u);
    Tab<unsigned char> data;
    EXPECT_TRUE(cache->SearchCachedEffects(WStr(L"0"), data));
  }
  EXPECT_EQ(EffectTesting::IndexNames(CacheFile()), (std::vector<std::string>{"0"}));
}

// Trimming at load across equal times, permanent effects and stamps that
// differ by a millisecond. Every effect has the same bytes, so each one
// removed takes the same size off and a limit says how many must go.
class EffectCacheTrimOrderTest : public EffectCacheImplTest {
 protected:
  void SetUp() override {
    {
      auto cache = Open();
      for (int i = 0; i < 6; ++i) {
        ASSERT_TRUE(cache->CacheCompiledEffect(WStr(Name(i).c_str()), bytes_.data(), bytes_.size(), i == 0));
      }
    }
    total_ = EffectTesting::Shape(CacheFile()).totalStreamSize;
    size_ = EffectTesting::ReadIndex(CacheFile()).at("fx/1").compressedSize;
    // fx/0 (permanent) is the oldest of all; fx/1 and fx/2 were last used
    // at one time, then fx/4, then fx/3 a millisecond later, then fx/5.
    SetLastUsed(0, {2026, 1, 1, 0, 0, 0, 0});
    SetLastUsed(1, {2026, 2, 1, 0, 0, 0, 0});
    SetLastUsed(2, {2026, 2, 1, 0, 0, 0, 0});
    SetLastUsed(3, {2026, 3, 1, 0, 0, 0, 1});
    SetLastUsed(4, {2026, 3, 1, 0, 0, 0, 0});
    SetLastUsed(5, {2026, 4, 1, 0, 0, 0, 0});
  }
  static std::wstring Name(int i) { return L"fx/" + std::to_wstring(i); }
  void SetLastUsed(int i, const CacheTimeStamp& when) {
    EffectTesting::PatchRecord(CacheFile(), WideText::ToUtf8(Name(i)), [&](EffectRecord& r) { r.lastUsed = when; });
  }
  // Opens the cache with a limit that `effects` removals reach.
  std::vector<std::string> LeftAfterRemoving(std::uint64_t effects) {
    auto cache = Open(total_ - effects * size_ + 1);
    EXPECT_TRUE(cache->IsEnabled());
    cache.reset();
    return EffectTesting::IndexNames(CacheFile());
  }

  const std::vector<unsigned char> bytes_ = EffectTesting::Bytes(60, 3000, true);
  std::uint64_t total_ = 0;
  std::uint64_t size_ = 0;
};

TEST_F(EffectCacheTrimOrderTest, OfTwoEffectsLastUsedAtOneTimeTheFirstInNameOrderGoesFirst) {
  EXPECT_EQ(LeftAfterRemoving(1), (std::vector<std::string>{"fx/0", "fx/2", "fx/3", "fx/4", "fx/5"}));
}

TEST_F(EffectCacheTrimOrderTest, AMillisecondOrdersTwoEffectsAndThePermanentOldestStays) {
  EXPECT_EQ(LeftAfterRemoving(3), (std::vector<std::string>{"fx/0", "fx/3", "fx/5"}));
}

TEST_F(EffectCacheTrimOrderTest, EveryEffectButThePermanentOneGoesWhenTheLimitAsksForMore) {
  EXPECT_EQ(LeftAfterRemoving(6), (std::vector<std::string>{"fx/0"}));
}

TEST_F(EffectCacheImplTest, ATrimAtLoadIsSavedAtOnceAndAnEmptyIndexKeepsOneByte) {
  {
    auto cache = Open();
    const auto bytes = EffectTesting::Bytes(30, 4000, false);
    ASSERT_TRUE(cache->CacheCompiledEffect(WStr(L"old"), bytes.data(), bytes.size(), false));
  }
  auto cache = Open(1);
  EXPECT_EQ(cache->GetNumberOfEffectsInFile(), 0u);
  // Still open, yet the file already holds the trimmed directory.
  const auto shape = EffectTesting::Shape(CacheFile());
  EXPECT_EQ(shape.header.effectCount, 0u);
  EXPECT_EQ(shape.indexSize, 1u);
  EXPECT_EQ(shape.streams, 1u);
  cache.reset();
  auto again = Open();
  EXPECT_TRUE(again->IsEnabled());
  EXPECT_EQ(again->GetNumberOfEffectsInFile(), 0u);
}

TEST_F(EffectCacheImplTest, AnIncompressibleMebibyteEffectIsFound) {
  const auto bytes = EffectTesting::Bytes(31, EffectCacheImpl::kEffectSizeLimit, false);
  {
    auto cache = Open();
    ASSERT_TRUE(cache->CacheCompiledEffect(WStr(L"big"), bytes.data(), bytes.size(), false));
  }
  EXPECT_GT(EffectTesting::ReadIndex(CacheFile()).at("big").compressedSize, EffectCacheImpl::kEffectSizeLimit);
  auto cache = Open();
  Tab<unsigned char> data;
  ASSERT_TRUE(cache->SearchCachedEffects(WStr(L"big"), data));
  EXPECT_EQ(EffectTesting::ToVector(data), bytes);
}

TEST_F(EffectCacheImplTest, ARecordWhoseSizeDisagreesWithItsDataMisses) {
  const auto bytes = EffectTesting::Bytes(32, 5000, true);
  {
    auto cache = Open();
    ASSERT_TRUE(cache->CacheCompiledEffect(WStr(L"fx"), bytes.data(), bytes.size(), false));
    ASSERT_TRUE(cache->CacheCompiledEffect(WStr(L"ok"), bytes.data(), bytes.size(), false));
  }
  EffectTesting::PatchRecord(CacheFile(), "fx", [](EffectRecord& r) { r.uncompressedSize += 1; });
  auto cache = Open();
  Tab<unsigned char> data;
  EXPECT_FALSE(cache->SearchCachedEffects(WStr(L"fx"), data));
  ASSERT_TRUE(cache->SearchCachedEffects(WStr(L"ok"), data));
  EXPECT_EQ(EffectTesting::ToVector(data), bytes);
}

TEST_F(EffectCacheImplTest, AnIndexPointingAtAMissingStreamMakesTheSearchMiss) {
  const auto bytes = EffectTesting::Bytes(33, 5000, true);
  {
    auto cache = Open();
    ASSERT_TRUE(cache->CacheCompiledEffect(WStr(L"fx"), bytes.data(), bytes.size(), false));
    ASSERT_TRUE(cache->CacheCompiledEffect(WStr(L"ok"), bytes.data(), bytes.size(), false));
  }
  EffectTesting::PatchRecord(CacheFile(), "fx", [](EffectRecord& r) { r.streamId = 777; });
  auto cache = Open();
  Tab<unsigned char> data;
  EXPECT_FALSE(cache->SearchCachedEffects(WStr(L"fx"), data));
  EXPECT_TRUE(cache->SearchCachedEffects(WStr(L"ok"), data));
}

TEST_F(EffectCacheImplTest, AFailedSaveLeavesTheFileAsItWasAndTheCacheUnusable) {
  const auto bytes = EffectTesting::Bytes(34, 30000, false);
  {
    auto cache = Open();
    ASSERT_TRUE(cache->CacheCompiledEffect(WStr(L"first"), bytes.data(), bytes.size(), false));
  }
  const auto before = TempDir::ReadAll(CacheFile());
  {
    auto cache = Open();
    ASSERT_TRUE(cache->CacheCompiledEffect(WStr(L"second"), bytes.data(), bytes.size(), false));
    FileFaults::FailNth(FileCall::kWrite, 1, 28, true);
    cache->ForceSaveToFile();
    FileFaults::Reset();
    EXPECT_FALSE(cache->IsEnabled());
    Tab<unsigned char> data;
    EXPECT_FALSE(cache->SearchCachedEffects(WStr(L"first"), data));
    EXPECT_FALSE(cache->CacheCompiledEffect(WStr(L"third"), bytes.data(), bytes.size(), false));
  }
  EXPECT_EQ(TempDir::ReadAll(CacheFile()), before);
  auto cache = Open();
  Tab<unsigned char> data;
  EXPECT_TRUE(cache->SearchCachedEffects(WStr(L"first"), data));
  EXPECT_FALSE(cache->SearchCachedEffects(WStr(L"second"), data));
}

TEST_F(EffectCacheImplTest, HeadersOfAnotherVersionOrCountAreRecreatedEmpty) {
  for (int variant = 0; variant < 3; ++variant) {
    SCOPED_TRACE(variant);
    {
      auto cache = Open();
      const auto bytes = EffectTesting::Bytes(35, 100, true);
      ASSERT_TRUE(cache->CacheCompiledEffect(WStr(L"fx"), bytes.data(), bytes.size(), false));
    }
    EffectTesting::PatchHeader(CacheFile(), [&](EffectCacheHeader& h) {
      if (variant == 0) h.version = 12;
      if (variant == 1) h.version = 14;
      if (variant == 2) h.effectCount = 8388609;
    });
    auto cache = Open();
    EXPECT_TRUE(cache->IsEnabled());
    EXPECT_EQ(cache->GetNumberOfEffectsInFile(), 0u);
    Tab<unsigned char> data;
    EXPECT_FALSE(cache->SearchCachedEffects(WStr(L"fx"), data));
  }
}

TEST_F(EffectCacheImplTest, TruncatedAndForeignFilesAreRecreatedEmpty) {
  {
    auto cache = Open();
    for (int i = 0; i < 20; ++i) {
      const auto bytes = EffectTesting::Bytes(40 + i, 3000, i % 2 == 0);
      ASSERT_TRUE(cache->CacheCompiledEffect(WStr(std::to_wstring(i)), bytes.data(), bytes.size(), false));
    }
  }
  const auto good = TempDir::ReadAll(CacheFile());
  const auto shape = EffectTesting::Shape(CacheFile());
  const Testing::PackageLayout layout(CacheFile());
  std::vector<std::vector<std::uint8_t>> files;
  for (std::size_t cut : {std::size_t{0}, std::size_t{100}, std::size_t{8192}, good.size() / 2}) {
    // Each cut takes part of the index away: what is left is no cache.
    ASSERT_LT(layout.BytesWithin(shape.header.indexStreamId, cut / kPageSize), shape.indexSize) << cut;
    files.emplace_back(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(cut));
  }
  files.push_back(EffectTesting::Bytes(99, 50000, false));  // not a package at all
  for (std::size_t f = 0; f < files.size(); ++f) {
    SCOPED_TRACE(f);
    TempDir::WriteAll(CacheFile(), files[f]);
    const auto added = EffectTesting::Bytes(98, 4000, true);
    {
      auto cache = Open();
      ASSERT_TRUE(cache->IsEnabled());
      EXPECT_EQ(cache->GetNumberOfEffectsInFile(), 0u);
      for (int i = 0; i < 20; ++i) {
        Tab<unsigned char> data;
        EXPECT_FALSE(cache->SearchCachedEffects(WStr(std::to_wstring(i)), data)) << i;
      }
      // Usable: what it stores now, another object finds.
      ASSERT_TRUE(cache->CacheCompiledEffect(WStr(L"added"), added.data(), added.size(), false));
      cache->ForceSaveToFile();
      EXPECT_TRUE(cache->IsEnabled());
    }
    auto again = Open();
    EXPECT_EQ(again->GetNumberOfEffectsInFile(), 1u);
    Tab<unsigned char> data;
    ASSERT_TRUE(again->SearchCachedEffects(WStr(L"added"), data));
    EXPECT_EQ(EffectTesting::ToVector(data), added);
  }
}

// Names that test the index's order: equal lengths that differ only in a
// byte above 0x7F, shared prefixes, the shorter before the longer.
std::vector<std::wstring> NamesThatTestTheOrder() {
  return {L"a",        L"b",         L"\u00e9",     L"ab",         L"aa",        L"a\u00e9",
          L"\u00e9a", L"\u00ff",   L"\u4e2d",     L"\u4e2d\u6587", L"abc",      L"abd",
          L"ab\u00e9", L"\U0001F600", L"x\U0001F600", L"shaders/pass-1", L"shaders/pass-10",
          L"shaders/pass-2"};
}

TEST_F(EffectCacheImplTest, AnIndexInNameOrderFindsNamesThatTestTheOrder) {
  const auto names = NamesThatTestTheOrder();
  {
    auto cache = Open();
    for (std::size_t i = 0; i < names.size(); ++i) {
      const auto bytes = EffectTesting::Bytes(static_cast<std::uint32_t>(300 + i), 500 + i, true);
      ASSERT_TRUE(cache->CacheCompiledEffect(WStr(names[i].c_str()), bytes.data(), bytes.size(), false));
    }
  }
  // The index as written is in the cache's name order.
  const auto written = EffectTesting::IndexNames(CacheFile());
  ASSERT_EQ(written.size(), names.size());
  EXPECT_TRUE(std::is_sorted(written.begin(), written.end(), EffectNameOrder()));
  const auto findEvery = [&] {
    auto cache = Open();
    EXPECT_EQ(cache->GetNumberOfEffectsInFile(), names.size());
    for (std::size_t i = 0; i < names.size(); ++i) {
      Tab<unsigned char> data;
      ASSERT_TRUE(cache->SearchCachedEffects(WStr(names[i].c_str()), data)) << i;
      EXPECT_EQ(EffectTesting::ToVector(data), EffectTesting::Bytes(static_cast<std::uint32_t>(300 + i), 500 + i, true));
    }
  };
  findEvery();
  // An index in another order loads to the same entries.
  EffectTesting::ReverseIndex(CacheFile());
  auto reversed = EffectTesting::IndexNames(CacheFile());
  ASSERT_FALSE(std::is_sorted(reversed.begin(), reversed.end(), EffectNameOrder()));
  findEvery();
}

TEST_F(EffectCacheImplTest, ARemovalReadsWhatOthersSavedSinceAndLeavesIt) {
  const auto bytes = EffectTesting::Bytes(61, 2000, true);
  auto remover = Open();
  ASSERT_TRUE(remover->CacheCompiledEffect(WStr(L"old"), bytes.data(), bytes.size(), false));
  remover->ForceSaveToFile();
  {
    // Another cache object (a host) saves after the remover last looked.
    auto host = Open();
    ASSERT_TRUE(host->CacheCompiledEffect(WStr(L"new"), bytes.data(), bytes.size(), false));
    host->ForceSaveToFile();
  }
  EffectCacheImpl::Removed removed;
  ASSERT_TRUE(remover->RemoveStored(
      [](const EffectTable::Entry& entry, const EffectCacheImpl::Removed&, std::uint64_t) { return entry.name == "old"; },
      false, &removed));
  EXPECT_EQ(removed.effects, 1u);
  EXPECT_EQ(EffectTesting::IndexNames(CacheFile()), std::vector<std::string>{"new"});
  // A dry run chooses the same way and writes nothing.
  const auto before = TempDir::ReadAll(CacheFile());
  ASSERT_TRUE(remover->RemoveStored(
      [](const EffectTable::Entry&, const EffectCacheImpl::Removed&, std::uint64_t) { return true; }, true, &removed));
  EXPECT_EQ(removed.effects, 1u);
  EXPECT_EQ(TempDir::ReadAll(CacheFile()), before);
}

TEST_F(EffectCacheImplTest, HitsMissesCachesAndTrimsAreCountedIntoTheFileAtEachSave) {
  const auto bytes = EffectTesting::Bytes(62, 20000, false);
  {
    auto cache = Open();
    ASSERT_TRUE(cache->CacheCompiledEffect(WStr(L"a"), bytes.data(), bytes.size(), false));
    Tab<unsigned char> data;
    EXPECT_TRUE(cache->SearchCachedEffects(WStr(L"a"), data));   // pending: a hit
    EXPECT_FALSE(cache->SearchCachedEffects(WStr(L"b"), data));  // a miss
    cache->ForceSaveToFile();
    EXPECT_TRUE(cache->SearchCachedEffects(WStr(L"a"), data));   // from the file
    EXPECT_FALSE(cache->SearchCachedEffects(WStr(L"c"), data));
    ASSERT_TRUE(cache->CacheCompiledEffect(WStr(L"b"), bytes.data(), bytes.size(), false));
  }
  EffectCacheStats stats;
  ASSERT_TRUE(EffectTesting::ReadStats(CacheFile(), stats));
  EXPECT_EQ(stats.hits, 2u);
  EXPECT_EQ(stats.misses, 2u);
  EXPECT_EQ(stats.cached, 2u);
  EXPECT_EQ(stats.trimmed, 0u);
  // A search-only object saves nothing, so its counts do not reach the file.
  {
    auto cache = Open();
    Tab<unsigned char> data;
    EXPECT_TRUE(cache->SearchCachedEffects(WStr(L"b"), data));
  }
  ASSERT_TRUE(EffectTesting::ReadStats(CacheFile(), stats));
  EXPECT_EQ(stats.hits, 2u);
  // A cache whose limit holds one effect trims the other at its open.
  {
    auto cache = Open(30000);
    ASSERT_TRUE(cache->CacheCompiledEffect(WStr(L"c"), bytes.data(), bytes.size(), false));
  }
  ASSERT_TRUE(EffectTesting::ReadStats(CacheFile(), stats));
  EXPECT_GE(stats.trimmed, 1u);
  EXPECT_EQ(stats.cached, 3u);
  const CacheTimeStamp before = stats.zeroed;
  {
    auto cache = Open();
    Tab<unsigned char> data;
    cache->SearchCachedEffects(WStr(L"zz"), data);
    ASSERT_TRUE(cache->ZeroStatistics());
  }
  ASSERT_TRUE(EffectTesting::ReadStats(CacheFile(), stats));
  EXPECT_FALSE(stats.AnyCounts());
  EXPECT_FALSE(stats.zeroed < before);
}

TEST_F(EffectCacheImplTest, ANearlyFullDiskNeverRemovesAStoredEffect) {
  std::vector<std::vector<unsigned char>> effects;
  {
    auto cache = Open();
    for (std::uint32_t i = 0; i < 40; ++i) {
      effects.push_back(EffectTesting::Bytes(100 + i, 20000, false));
      ASSERT_TRUE(cache->CacheCompiledEffect(WStr(std::to_wstring(i)), effects[i].data(), effects[i].size(), false));
    }
  }
  ASSERT_GT(EffectTesting::Shape(CacheFile()).totalStreamSize, 40u * 20000);
  FileFaults::SetAvailableBytes(100 * 1024);  // far less than the 800 KB stored
  {
    auto cache = Open();
    EXPECT_EQ(cache->GetNumberOfEffectsInFile(), 40u);
    Tab<unsigned char> data;
    for (std::uint32_t i = 0; i < 40; ++i) {
      ASSERT_TRUE(cache->SearchCachedEffects(WStr(std::to_wstring(i)), data)) << i;
      EXPECT_EQ(EffectTesting::ToVector(data), effects[i]);
    }
    const auto small = EffectTesting::Bytes(99, 3000, true);
    ASSERT_TRUE(cache->CacheCompiledEffect(WStr(L"new"), small.data(), small.size(), false));
    cache->ForceSaveToFile();
    EXPECT_TRUE(cache->IsEnabled());
    EXPECT_EQ(cache->GetNumberOfEffectsInFile(), 41u);
  }
  EXPECT_EQ(EffectTesting::IndexNames(CacheFile()).size(), 41u);
  // The cache's own limit still trims, whatever the free space.
  {
    auto cache = Open(20 * 20000);
    EXPECT_LT(cache->GetNumberOfEffectsInFile(), 21u);
  }
  EXPECT_LT(EffectTesting::Shape(CacheFile()).totalStreamSize, 20u * 20000);
}

TEST_F(EffectCacheImplTest, NamesThatAreNotUnicodeAreRefusedAndNeverFindAnotherName) {
  const auto bytes = EffectTesting::Bytes(41, 3000, true);
  auto cache = Open();
  ASSERT_TRUE(cache->CacheCompiledEffect(WStr(L"fx\uFFFD"), bytes.data(), bytes.size(), false));
  std::vector<std::wstring> bad{std::wstring(L"fx") + wchar_t(0xD800), std::wstring(L"fx") + wchar_t(0xDFFF)};
  if (sizeof(wchar_t) == 4) {
    bad.push_back(std::wstring(L"fx") + static_cast<wchar_t>(0x110000));
    bad.push_back(std::wstring(L"fx") + static_cast<wchar_t>(0x7FFFFFFF));
  }
  for (const std::wstring& name : bad) {
    EXPECT_FALSE(cache->CacheCompiledEffect(WStr(name), bytes.data(), bytes.size(), false));
    Tab<unsigned char> data;
    EXPECT_FALSE(cache->SearchCachedEffects(WStr(name), data));  // not even the pending U+FFFD name
  }
  EXPECT_EQ(cache->GetNumberOfEffectsInMemory(), 1u);
  cache->ForceSaveToFile();
  for (const std::wstring& name : bad) {
    Tab<unsigned char> data;
    EXPECT_FALSE(cache->SearchCachedEffects(WStr(name), data));  // nor the stored one
  }
}

TEST_F(EffectCacheImplTest, NamesOfEveryPlaneAreKeptByteForByte) {
  const std::vector<std::string> names{
      "\xE4\xB8\xAD\xE6\x96\x87/\xE7\x9D\x80\xE8\x89\xB2\xE5\x99\xA8.fx",  // CJK
      "\xF0\x9F\x98\x80\xF0\x9F\x8E\xA8",                                      // emoji, outside the first plane
      "e\xCC\x81\xCC\xA7 combining",                                                   // combining marks
      "tab\there\nnewline",
      "back\\slash\\name",
      "\xEF\xBF\xBD stands for itself"};
  std::vector<std::vector<unsigned char>> effects;
  {
    auto cache = Open();
    for (std::size_t i = 0; i < names.size(); ++i) {
      effects.push_back(EffectTesting::Bytes(50 + static_cast<std::uint32_t>(i), 1000 + i, true));
      ASSERT_TRUE(cache->CacheCompiledEffect(WStr(WideText::FromUtf8(names[i])), effects[i].data(),
                                             effects[i].size(), false));
    }
  }
  const auto index = EffectTesting::ReadIndex(CacheFile());
  for (const std::string& name : names) EXPECT_EQ(index.count(name), 1u) << name;
  auto cache = Open();
  for (std::size_t i = 0; i < names.size(); ++i) {
    Tab<unsigned char> data;
    ASSERT_TRUE(cache->SearchCachedEffects(WStr(WideText::FromUtf8(names[i])), data)) << names[i];
    EXPECT_EQ(EffectTesting::ToVector(data), effects[i]);
  }
}

TEST_F(EffectCacheImplTest, AnEntryWhoseBytesCannotBeReadIsDroppedAtTheNextSave) {
  const auto bytes = EffectTesting::Bytes(60, 40000, true);
  {
    auto cache = Open();
    for (const wchar_t* name : {L"good", L"bad", L"other"}) {
      ASSERT_TRUE(cache->CacheCompiledEffect(WStr(name), bytes.data(), bytes.size(), false));
    }
  }
  EffectTesting::DamageEffectBytes(CacheFile(), "bad");
  {
    auto cache = Open();
    Tab<unsigned char> data;
    EXPECT_FALSE(cache->SearchCachedEffects(WStr(L"bad"), data));
    EXPECT_EQ(EffectTesting::IndexNames(CacheFile()).size(), 3u);  // nothing written by a search
    EXPECT_TRUE(cache->SearchCachedEffects(WStr(L"good"), data));
  }  // the cache ends, and saves: the damaged entry goes
  EXPECT_EQ(EffectTesting::IndexNames(CacheFile()), (std::vector<std::string>{"good", "other"}));
  const auto shape = EffectTesting::Shape(CacheFile());
  EXPECT_EQ(shape.header.effectCount, 2u);
  EXPECT_EQ(shape.streams, 3u);  // two effects and the index: the damaged stream went too
  auto cache = Open();
  Tab<unsigned char> data;
  EXPECT_TRUE(cache->SearchCachedEffects(WStr(L"other"), data));
  EXPECT_EQ(EffectTesting::ToVector(data), bytes);
}

}  // namespace
}  // namespace Tovrel
