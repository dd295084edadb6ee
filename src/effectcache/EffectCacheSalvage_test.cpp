// A cache file that does not load is salvaged before it is replaced: every
// effect proven intact comes back with its name, permanence and last use,
// nothing else does, and the damaged file is kept beside the new one.
#include "effectcache/EffectCacheSalvage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <string>
#include <vector>

#include "effectcache/EffectCacheImpl.h"
#include "platform/FileFaults.h"
#include "support/CrashRunner.h"
#include "support/EffectTesting.h"
#include "support/InstalledFileSystem.h"

namespace Tovrel {
namespace {

using Testing::EffectTesting;
using Verdict = EffectCacheSalvage::Verdict;

constexpr int kEffects = 20;
constexpr const wchar_t* kFolder = L"salvage";

std::string Name(int i) { return "fx/" + std::to_string(i) + ".fxo"; }
std::wstring WideName(int i) { return L"fx/" + std::to_wstring(i) + L".fxo"; }
std::vector<unsigned char> Bytes(int i) {
  return EffectTesting::Bytes(static_cast<std::uint32_t>(i + 3), 900 + 613 * static_cast<std::size_t>(i), i % 4 != 1);
}

class EffectCacheSalvageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    EffectCacheImpl::SetOpenRetryInterval(0);
    Fill();
  }
  void TearDown() override {
    FileFaults::Reset();
    EffectCacheImpl::SetOpenRetryInterval(EffectCacheImpl::kOpenRetryMilliseconds);
  }

  static void Fill() {
    EffectCacheImpl cache(WStr(kFolder), 2);
    ASSERT_TRUE(cache.IsEnabled());
    for (int i = 0; i < kEffects; ++i) {
      const auto bytes = Bytes(i);
      ASSERT_TRUE(cache.CacheCompiledEffect(WStr(WideName(i).c_str()), bytes.data(), bytes.size(), i % 5 == 2));
    }
    cache.ForceSaveToFile();
    ASSERT_TRUE(cache.IsEnabled());
  }
  static std::wstring File() { return std::wstring(CacheFileNames::CacheFilePathFor(WStr(kFolder)).data()); }
  static std::wstring Copy() { return EffectCacheSalvage::DamagedCopyPath(File()); }
  std::vector<std::uint8_t> FileBytes() { return files_.Memory().ReadAll(File()); }
  // The index's names in its order.
  static std::vector<std::string> Order() { return EffectTesting::IndexNames(File()); }
  // Makes the index unreadable from the entry at `position` on: the file
  // no longer loads.
  static void BreakIndexAt(std::size_t position) {
    EffectTesting::PatchRecord(File(), Order().at(position), [](EffectRecord& r) { r.nameLength = 0; });
  }
  static int Number(const std::string& name) { return std::stoi(name.substr(3)); }

  // The names a cache opened now finds, each checked against its bytes.
  static std::vector<std::string> Found(EffectCacheImpl& cache) {
    std::vector<std::string> found;
    for (int i = 0; i < kEffects; ++i) {
      Tab<unsigned char> data;
      if (!cache.SearchCachedEffects(WStr(WideName(i).c_str()), data)) continue;
      EXPECT_EQ(EffectTesting::ToVector(data), Bytes(i)) << Name(i) << " came back with other bytes";
      found.push_back(Name(i));
    }
    return found;
  }

  Testing::InstalledFileSystem files_;
};

TEST_F(EffectCacheSalvageTest, AnIndexBrokenHalfWayGivesBackTheEntriesBeforeTheBreak) {
  const std::vector<std::string> order = Order();
  const std::map<std::string, EffectRecord> before = EffectTesting::ReadIndex(File());
  BreakIndexAt(12);
  const std::vector<std::uint8_t> damaged = FileBytes();
  EffectCacheImpl cache(WStr(kFolder), 2);
  ASSERT_TRUE(cache.IsEnabled());
  const std::vector<std::string> expected(order.begin(), order.begin() + 12);
  std::vector<std::string> found = Found(cache);
  std::vector<std::string> sorted = expected;
  std::sort(sorted.begin(), sorted.end());
  std::sort(found.begin(), found.end());
  EXPECT_EQ(found, sorted);
  EXPECT_EQ(cache.GetNumberOfEffectsInFile(), 12u);
  EffectCacheSalvage::Summary summary;
  ASSERT_TRUE(cache.LastSalvage(&summary));
  EXPECT_EQ(summary.verdict, Verdict::kSalvaged);
  EXPECT_EQ(summary.recordedEffects, static_cast<std::uint64_t>(kEffects));
  EXPECT_EQ(summary.readEntries, 12u);
  EXPECT_EQ(summary.keptEffects, 12u);
  EXPECT_TRUE(summary.dropped.empty());
  EXPECT_EQ(files_.Memory().ReadAll(Copy()), damaged);
  // Names, permanence and last use come back as they were stored.
  const std::map<std::string, EffectRecord> after = EffectTesting::ReadIndex(File());
  for (const std::string& name : expected) {
    const EffectRecord& was = before.at(name);
    const EffectRecord& is = after.at(name);
    EXPECT_EQ(is.permanent, was.permanent) << name;
    EXPECT_TRUE(is.lastUsed == was.lastUsed) << name;
    EXPECT_EQ(is.uncompressedSize, was.uncompressedSize) << name;
    EXPECT_EQ(is.compressedSize, was.compressedSize) << name;
  }
}

TEST_F(EffectCacheSalvageTest, AnEffectWhoseBytesAreDamagedIsDroppedAndTheRestKept) {
  const std::vector<std::string> order = Order();
  EffectTesting::DamageEffectBytes(File(), order.at(3));
  BreakIndexAt(15);
  EffectCacheImpl cache(WStr(kFolder), 2);
  const std::vector<std::string> found = Found(cache);
  EXPECT_EQ(found.size(), 14u);
  EXPECT_EQ(std::count(found.begin(), found.end(), order.at(3)), 0);
  EffectCacheSalvage::Summary summary;
  ASSERT_TRUE(cache.LastSalvage(&summary));
  EXPECT_EQ(summary.readEntries, 15u);
  EXPECT_EQ(summary.keptEffects, 14u);
  EXPECT_EQ(summary.dropped, std::vector<std::string>{order.at(3)});
}

TEST_F(EffectCacheSalvageTest, TwoEntriesNamingOneStreamAreBothDropped) {
  const std::vector<std::string> order = Order();
  const std::uint64_t other = EffectTesting::ReadIndex(File()).at(order.at(7)).streamId;
  EffectTesting::PatchRecord(File(), order.at(2), [other](EffectRecord& r) { r.streamId = other; });
  // The file loads: the salvage is asked for.
  EffectCacheImpl cache(WStr(kFolder), 2);
  EffectCacheSalvage::Summary summary;
  EXPECT_FALSE(cache.LastSalvage(&summary));
  ASSERT_TRUE(cache.SalvageFile(&summary));
  EXPECT_EQ(summary.keptEffects, static_cast<std::uint64_t>(kEffects - 2));
  std::vector<std::string> dropped = summary.dropped;
  std::sort(dropped.begin(), dropped.end());
  std::vector<std::string> both{order.at(2), order.at(7)};
  std::sort(both.begin(), both.end());
  EXPECT_EQ(dropped, both);
  EXPECT_EQ(Found(cache).size(), static_cast<std::size_t>(kEffects - 2));
  EXPECT_TRUE(files_.Memory().Exists(Copy().c_str()));
}

TEST_F(EffectCacheSalvageTest, AHeaderThatFailsItsChecksOrAMissingIndexStreamIsReplacedEmpty) {
  for (int damage = 0; damage < 3; ++damage) {
    SCOPED_TRACE(damage);
    if (damage > 0) Fill();
    EffectTesting::PatchHeader(File(), [damage](EffectCacheHeader& h) {
      if (damage == 0) h.version = 77;
      if (damage == 1) h.effectCount = 0x7FFFFFFF;
      if (damage == 2) h.indexStreamId = 5000;
    });
    EffectCacheImpl cache(WStr(kFolder), 2);
    ASSERT_TRUE(cache.IsEnabled());
    EXPECT_TRUE(Found(cache).empty());
    EXPECT_EQ(cache.GetNumberOfEffectsInFile(), 0u);
    EffectCacheSalvage::Summary summary;
    ASSERT_TRUE(cache.LastSalvage(&summary));
    EXPECT_EQ(summary.verdict, Verdict::kNotACache);
    EXPECT_FALSE(files_.Memory().Exists(Copy().c_str()));
  }
}

TEST_F(EffectCacheSalvageTest, TheCopyIsTheLatestDamagedFileAndIsNeverSalvagedAgain) {
  BreakIndexAt(10);
  const std::vector<std::uint8_t> first = FileBytes();
  { EffectCacheImpl cache(WStr(kFolder), 2); }
  EXPECT_EQ(files_.Memory().ReadAll(Copy()), first);
  {
    // A sound file: nothing is salvaged, the copy stays as it is.
    EffectCacheImpl cache(WStr(kFolder), 2);
    EffectCacheSalvage::Summary summary;
    EXPECT_FALSE(cache.LastSalvage(&summary));
    EXPECT_EQ(Found(cache).size(), 10u);
  }
  EXPECT_EQ(files_.Memory().ReadAll(Copy()), first);
  BreakIndexAt(4);
  const std::vector<std::uint8_t> second = FileBytes();
  { EffectCacheImpl cache(WStr(kFolder), 2); }
  EXPECT_EQ(files_.Memory().ReadAll(Copy()), second);
}

TEST_F(EffectCacheSalvageTest, AFailedReadLeavesTheFileForALaterTry) {
  BreakIndexAt(9);
  const std::vector<std::uint8_t> damaged = FileBytes();
  // Count the calls of a salvage, then fail each of the reads in turn once.
  FileFaults::StartCounting();
  { EffectCacheImpl cache(WStr(kFolder), 2); }
  const std::uint64_t reads = FileFaults::Calls(FileCall::kRead);
  ASSERT_GT(reads, 0u);
  for (std::uint64_t n = 1; n <= reads; ++n) {
    SCOPED_TRACE(n);
    files_.Memory().WriteAll(File(), damaged);
    files_.Memory().Remove(Copy().c_str());
    FileFaults::FailNth(FileCall::kRead, n, EIO);
    EffectCacheImpl cache(WStr(kFolder), 2);
    FileFaults::Reset();
    // The failed read proved nothing: no effect is lost for it, at once
    // or at the next try.
    EXPECT_EQ(Found(cache).size(), 9u);
  }
}

TEST_F(EffectCacheSalvageTest, WithNoRoomForTheCopyTheFileIsLeftAsItIs) {
  BreakIndexAt(6);
  const std::vector<std::uint8_t> damaged = FileBytes();
  std::uint64_t used = 0;
  for (const std::wstring& file : files_.Memory().ListFiles()) used += files_.Memory().ReadAll(file).size();
  files_.Memory().SetCapacity(used);
  {
    EffectCacheImpl cache(WStr(kFolder), 2);
    EXPECT_TRUE(Found(cache).empty());
  }
  EXPECT_EQ(FileBytes(), damaged);
  EXPECT_FALSE(files_.Memory().Exists(Copy().c_str()));
  files_.Memory().SetCapacity(MemoryFileSystem::kUnlimited);
  EffectCacheImpl cache(WStr(kFolder), 2);
  EXPECT_EQ(Found(cache).size(), 6u);
}

// The power goes at each file call of a salvage in turn: afterwards the
// damaged bytes are still whole (in the file, or kept beside it), and a
// cache opened then finds only effects with their own bytes.
TEST_F(EffectCacheSalvageTest, APowerCutAtAnyCallLosesNeitherTheDamagedBytesNorTruth) {
  BreakIndexAt(11);
  const std::vector<std::uint8_t> damaged = FileBytes();
  FileFaults::StartCounting();
  { EffectCacheImpl cache(WStr(kFolder), 2); }
  const std::uint64_t calls = FileFaults::Calls(FileCall::kAny);
  FileFaults::Reset();
  for (std::uint64_t n : Testing::CrashRunner::Points(calls, 60, 5)) {
    SCOPED_TRACE(n);
    Testing::InstalledFileSystem files;
    files.Memory().WriteAll(File(), damaged);
    FileFaults::CutPowerAtNth(FileCall::kAny, n);
    { EffectCacheImpl cache(WStr(kFolder), 2); }
    FileFaults::Reset();
    files.Memory().RestorePower(static_cast<std::uint32_t>(n));
    const bool inFile = files.Memory().ReadAll(File()) == damaged;
    const bool kept = files.Memory().Exists(Copy().c_str()) && files.Memory().ReadAll(Copy()) == damaged;
    EXPECT_TRUE(inFile || kept) << "the damaged bytes are gone";
    EffectCacheImpl cache(WStr(kFolder), 2);
    ASSERT_TRUE(cache.IsEnabled());
    const std::size_t found = Found(cache).size();
    // The salvage ran to its end now, or had before the cut: everything
    // before the break comes back; a cut after the old file was emptied
    // leaves a new empty one, with the damaged bytes kept.
    EXPECT_TRUE(found == 11u || (found == 0u && kept)) << found;
  }
}

}  // namespace
}  // namespace Tovrel
