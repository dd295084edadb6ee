#include "effectcache/UnsavedCounts.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <vector>

#include "effectcache/CacheFileNames.h"
#include "effectcache/EffectCacheImpl.h"
#include "platform/FileFaults.h"
#include "support/EffectTesting.h"
#include "support/TempDir.h"

namespace Tovrel {
namespace {

using Testing::EffectTesting;
using Testing::TempDir;

EffectCacheStats Some(std::uint64_t base) {
  EffectCacheStats counts;
  counts.hits = base + 1;
  counts.misses = base + 2;
  counts.cached = base + 3;
  counts.trimmed = base + 4;
  counts.remoteHits = base + 5;
  counts.remoteMisses = base + 6;
  counts.remoteErrors = base + 7;
  counts.remoteBytesIn = base + 8;
  counts.remoteBytesOut = (1ull << 40) + base;
  return counts;
}

void ExpectSame(const EffectCacheStats& a, const EffectCacheStats& b) {
  EXPECT_EQ(a.hits, b.hits);
  EXPECT_EQ(a.misses, b.misses);
  EXPECT_EQ(a.cached, b.cached);
  EXPECT_EQ(a.trimmed, b.trimmed);
  EXPECT_EQ(a.remoteHits, b.remoteHits);
  EXPECT_EQ(a.remoteMisses, b.remoteMisses);
  EXPECT_EQ(a.remoteErrors, b.remoteErrors);
  EXPECT_EQ(a.remoteBytesIn, b.remoteBytesIn);
  EXPECT_EQ(a.remoteBytesOut, b.remoteBytesOut);
}

TEST(UnsavedCountsTest, TheFileLiesBesideTheCacheFile) {
  EXPECT_EQ(UnsavedCounts::PathFor(L"/a/b/norvaneFxoCache.dat"), L"/a/b/norvaneFxoCache.counts");
  EXPECT_EQ(UnsavedCounts::PathFor(L"C:\\fx\\norvaneFxoCache.dat"), L"C:\\fx\\norvaneFxoCache.counts");
}

TEST(UnsavedCountsTest, AddsAccumulateAndReadBackExactly) {
  TempDir dir;
  const std::wstring path = dir.File("norvaneFxoCache.counts");
  EffectCacheStats read;
  EXPECT_FALSE(UnsavedCounts::Read(path, &read));
  ASSERT_TRUE(UnsavedCounts::Add(path, Some(10)));
  ASSERT_TRUE(UnsavedCounts::Add(path, Some(100)));
  ASSERT_TRUE(UnsavedCounts::Read(path, &read));
  EffectCacheStats both = Some(10);
  both.AddCounts(Some(100));
  ExpectSame(read, both);
  EXPECT_EQ(TempDir::SizeOf(path), UnsavedCounts::kFileSize);
  EXPECT_FALSE(std::filesystem::exists(path + L".new"));
  EXPECT_TRUE(UnsavedCounts::Remove(path));
  EXPECT_FALSE(UnsavedCounts::Read(path, &read));
  EXPECT_TRUE(UnsavedCounts::Remove(path)) << "no file afterwards is what a removal promises";
}

TEST(UnsavedCountsTest, AFileOfAnotherShapeCountsAsNoneAndTheNextAddReplacesIt) {
  TempDir dir;
  const std::wstring path = dir.File("norvaneFxoCache.counts");
  ASSERT_TRUE(UnsavedCounts::Add(path, Some(1)));
  std::vector<std::uint8_t> bytes = TempDir::ReadAll(path);
  for (std::size_t at : {std::size_t{0}, std::size_t{4}, std::size_t{20}, bytes.size() - 1}) {
    std::vector<std::uint8_t> damaged = bytes;
    damaged[at] ^= 0x40;
    TempDir::WriteAll(path, damaged);
    EffectCacheStats read = Some(5);
    EXPECT_FALSE(UnsavedCounts::Read(path, &read)) << "byte " << at;
    EXPECT_EQ(read.hits, 0u);
  }
  TempDir::WriteAll(path, std::vector<std::uint8_t>(bytes.begin(), bytes.end() - 1));
  EffectCacheStats read;
  EXPECT_FALSE(UnsavedCounts::Read(path, &read));
  ASSERT_TRUE(UnsavedCounts::Add(path, Some(7)));
  ASSERT_TRUE(UnsavedCounts::Read(path, &read));
  ExpectSame(read, Some(7));
}

TEST(UnsavedCountsTest, AnAddThatCannotWriteLeavesTheFileAsItWas) {
  TempDir dir;
  const std::wstring path = dir.File("norvaneFxoCache.counts");
  ASSERT_TRUE(UnsavedCounts::Add(path, Some(1)));
  const std::vector<std::uint8_t> before = TempDir::ReadAll(path);
  for (FileCall call : {FileCall::kOpen, FileCall::kWrite, FileCall::kClose, FileCall::kRename}) {
    FileFaults::Reset();
    // The read of the old counts opens and closes the file first: the
    // write's open and close are the second of their kind.
    FileFaults::FailNth(call, call == FileCall::kOpen || call == FileCall::kClose ? 2 : 1, ENOSPC);
    EXPECT_FALSE(UnsavedCounts::Add(path, Some(50))) << static_cast<int>(call);
    FileFaults::Reset();
    EXPECT_EQ(TempDir::ReadAll(path), before) << static_cast<int>(call);
    EXPECT_FALSE(std::filesystem::exists(path + L".new")) << static_cast<int>(call);
  }
}

// Caches that only search leave their counts beside the file; a cache
// that saves puts them in the file's block; zeroing removes them.
TEST(UnsavedCountsTest, ACacheThatOnlySearchesKeepsItsCountsBesideTheFile) {
  TempDir dir;
  const WStr folder(dir.Path().wstring().c_str());
  const std::wstring counts = UnsavedCounts::PathFor(CacheFileNames::CacheFilePathFor(folder).data());
  const auto bytes = EffectTesting::Bytes(3, 5000, true);
  {
    EffectCacheImpl cache(folder, 2);
    ASSERT_TRUE(cache.CacheCompiledEffect(WStr(L"fx"), bytes.data(), bytes.size(), false));
  }
  EXPECT_FALSE(std::filesystem::exists(counts)) << "a cache that saved keeps its counts in the file";
  for (int run = 0; run < 3; ++run) {
    EffectCacheImpl cache(folder, 2);
    Tab<unsigned char> data;
    EXPECT_TRUE(cache.SearchCachedEffects(WStr(L"fx"), data));
    EXPECT_FALSE(cache.SearchCachedEffects(WStr(L"absent"), data));
  }
  EffectCacheStats read;
  ASSERT_TRUE(UnsavedCounts::Read(counts, &read));
  EXPECT_EQ(read.hits, 3u);
  EXPECT_EQ(read.misses, 3u);
  EXPECT_EQ(read.cached, 0u);
  {
    EffectCacheImpl cache(folder, 2);
    ASSERT_TRUE(cache.ZeroStatistics());
  }
  EXPECT_FALSE(std::filesystem::exists(counts));
}

}  // namespace
}  // namespace Tovrel
