// A cache file whose tables were damaged (two streams' chains sharing
// pages, a child file whose list of tails disagrees with the tail records)
// never costs the effects the damage did not touch: searching, healing
// the damaged entries, trimming, removing and compacting leave every other
// effect's bytes as they were, and a compaction refuses.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "effectcache/EffectCacheImpl.h"
#include "package/PagedFilePackage.h"
#include "pagefile/LittleEndian.h"
#include "support/EffectTesting.h"
#include "support/HeadChainFile.h"
#include "support/TempDir.h"

namespace Tovrel {
namespace {

using Testing::EffectTesting;
using Testing::HeadChainFile;
using Testing::TempDir;

constexpr int kEffects = 24;

std::string NameOf(int i) { return "fx/" + std::to_string(i); }
std::wstring WideOf(int i) { return L"fx/" + std::to_wstring(i); }
// Random bytes of two and a half pages: every stream has two whole pages
// and a tail.
std::vector<unsigned char> BytesOf(int i) {
  return EffectTesting::Bytes(static_cast<std::uint32_t>(40 + i), 20000 + static_cast<std::size_t>(i), false);
}

class EffectCacheDamagedTablesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    EffectCacheImpl cache(WStr(folder_.c_str()), 2);
    for (int i = 0; i < kEffects; ++i) {
      const std::vector<unsigned char> bytes = BytesOf(i);
      ASSERT_TRUE(cache.CacheCompiledEffect(WStr(WideOf(i).c_str()), bytes.data(), bytes.size(), false));
    }
    cache.ForceSaveToFile();
    ASSERT_EQ(cache.GetNumberOfEffectsInFile(), static_cast<std::size_t>(kEffects));
    index_ = EffectTesting::ReadIndex(CacheFile());
  }

  std::wstring CacheFile() const { return dir_.File("norvaneFxoCache.dat"); }
  std::uint64_t StreamOf(int i) const { return index_.at(NameOf(i)).streamId; }

  // Rewrites the head stream's bytes in place through `change` (which must
  // keep their length), on the pages the chain has now.
  void PatchHead(const std::function<void(std::vector<std::uint8_t>&, const PagedFilePackage&)>& change) {
    const std::wstring file = CacheFile();
    RefPtr<PagedFilePackage> package(new PagedFilePackage(PagedFilePackageConfig{file.c_str(), 16, 65535}));
    ASSERT_TRUE(package->Load());
    const IPagedFileSeeker* head = package->GetHeadSeeker();
    const std::vector<std::uint64_t> ids(head->pageIds, head->pageIds + head->pageCount);
    std::vector<std::uint8_t> payload = HeadChainFile::Read(*package->GetPageCache());
    const std::size_t size = payload.size();
    change(payload, *package);
    ASSERT_EQ(payload.size(), size);
    HeadChainFile::Write(*package->GetPageCache(), ids, payload);
    package->Close();
  }
  // Where the stream table's entries begin in the head stream.
  static std::size_t StreamEntries(const std::vector<std::uint8_t>& payload) {
    return 8 + 8 * LittleEndian::Load64(payload.data()) + 8;
  }
  static std::size_t EntryOf(const std::vector<std::uint8_t>& payload, std::uint64_t stream) {
    const std::size_t first = StreamEntries(payload);
    const std::uint64_t count = LittleEndian::Load64(payload.data() + first - 8);
    for (std::uint64_t k = 0; k < count; ++k) {
      if (LittleEndian::Load64(payload.data() + first + 32 * k) == stream) return first + 32 * k;
    }
    ADD_FAILURE() << "no stream " << stream;
    return first;
  }
  // The chain of `from` starts where the chain of `to` starts: two
  // streams own the same pages.
  void ShareChain(int from, int to) {
    PatchHead([&](std::vector<std::uint8_t>& payload, const PagedFilePackage&) {
      const std::uint64_t target = LittleEndian::Load64(payload.data() + EntryOf(payload, StreamOf(to)) + 16);
      LittleEndian::Store64(payload.data() + EntryOf(payload, StreamOf(from)) + 16, target);
    });
  }

  // Every effect but those in `spared` is found with its own bytes.
  void ExpectOthersIntact(const std::vector<int>& spared, const std::string& after) {
    EffectCacheImpl reader(WStr(folder_.c_str()), 2);
    ASSERT_TRUE(reader.IsEnabled()) << after;
    for (int i = 0; i < kEffects; ++i) {
      if (std::find(spared.begin(), spared.end(), i) != spared.end()) continue;
      Tab<unsigned char> data;
      ASSERT_TRUE(reader.SearchCachedEffects(WStr(WideOf(i).c_str()), data)) << after << ": effect " << i;
      EXPECT_EQ(EffectTesting::ToVector(data), BytesOf(i)) << after << ": effect " << i;
    }
  }

  TempDir dir_;
  std::wstring folder_ = dir_.Path().wstring();
  std::map<std::string, EffectRecord> index_;
};

TEST_F(EffectCacheDamagedTablesTest, HealingAnEntryWhosePagesAreAnothersFreesNoneOfThem) {
  ShareChain(3, 7);
  {
    EffectCacheImpl cache(WStr(folder_.c_str()), 2);
    ASSERT_TRUE(cache.IsEnabled());
    Tab<unsigned char> data;
    EXPECT_FALSE(cache.SearchCachedEffects(WStr(WideOf(3).c_str()), data));  // another's bytes fail their check
    const std::vector<unsigned char> bytes = BytesOf(100);
    ASSERT_TRUE(cache.CacheCompiledEffect(WStr(L"fx/new"), bytes.data(), bytes.size(), false));
    cache.ForceSaveToFile();  // drops the damaged entry, and must not free what it pointed at
    EXPECT_TRUE(cache.IsEnabled());
  }
  ExpectOthersIntact({3}, "healing");
  // New effects reuse free pages: the other stream's pages are not among them.
  {
    EffectCacheImpl cache(WStr(folder_.c_str()), 2);
    for (int i = 200; i < 210; ++i) {
      const std::vector<unsigned char> bytes = BytesOf(i);
      ASSERT_TRUE(cache.CacheCompiledEffect(WStr(WideOf(i).c_str()), bytes.data(), bytes.size(), false));
    }
    cache.ForceSaveToFile();
  }
  ExpectOthersIntact({3}, "saving more");
}

TEST_F(EffectCacheDamagedTablesTest, RemovingTrimmingAndCompactingAroundSharedPagesKeepEveryOtherEffect) {
  ShareChain(5, 11);
  {
    EffectCacheImpl cache(WStr(folder_.c_str()), 2);
    ASSERT_TRUE(cache.IsEnabled());
    // Remove the damaged entry and two healthy ones, by name.
    const auto chosen = [](const EffectTable::Entry& entry, const EffectCacheImpl::Removed&, std::uint64_t) {
      return entry.name == "fx/5" || entry.name == "fx/0" || entry.name == "fx/1";
    };
    cache.RemoveStored(chosen, false, nullptr);
    EXPECT_FALSE(cache.CompactFile(nullptr)) << "a file with pages two streams claim was compacted";
  }
  ExpectOthersIntact({0, 1, 5}, "removal and compaction");
  {
    // A size limit that trims most effects, the damaged one among the first.
    EffectCacheImpl cache(WStr(folder_.c_str()), 2, 8 * 21000);
    ASSERT_TRUE(cache.IsEnabled());
  }
  const std::map<std::string, EffectRecord> left = EffectTesting::ReadIndex(CacheFile());
  EffectCacheImpl reader(WStr(folder_.c_str()), 2);
  for (int i = 0; i < kEffects; ++i) {
    if (left.count(NameOf(i)) == 0 || i == 5) continue;
    Tab<unsigned char> data;
    ASSERT_TRUE(reader.SearchCachedEffects(WStr(WideOf(i).c_str()), data)) << "effect " << i << " after the trim";
    EXPECT_EQ(EffectTesting::ToVector(data), BytesOf(i)) << "effect " << i << " after the trim";
  }
}

TEST_F(EffectCacheDamagedTablesTest, AChildFileWhoseTailListDisagreesWithItsRecordsIsNeverShifted) {
  // The last child file's list of tails names its first two tails in the
  // wrong order: its tails' places no longer agree with the records.
  PatchHead([](std::vector<std::uint8_t>& payload, const PagedFilePackage& package) {
    const std::size_t streams = StreamEntries(payload);
    std::size_t at = streams + 32 * LittleEndian::Load64(payload.data() + streams - 8);
    const std::uint64_t children = LittleEndian::Load64(payload.data() + at);
    ASSERT_GE(package.GetChildFileTable().GetChildFileCount(), 1u);
    at += 8;
    for (std::uint64_t c = 0; c < children; ++c) {
      const std::uint64_t tails = LittleEndian::Load64(payload.data() + at + 80);
      if (c + 1 == children) {
        ASSERT_GE(tails, 2u);
        std::uint8_t* list = payload.data() + at + 88;
        const std::uint64_t first = LittleEndian::Load64(list);
        LittleEndian::Store64(list, LittleEndian::Load64(list + 8));
        LittleEndian::Store64(list + 8, first);
      }
      at += 88 + 8 * tails;
    }
  });
  const std::vector<std::uint8_t> damaged = TempDir::ReadAll(CacheFile());
  {
    EffectCacheImpl cache(WStr(folder_.c_str()), 2);
    ASSERT_TRUE(cache.IsEnabled());
    EXPECT_FALSE(cache.CompactFile(nullptr)) << "a file whose tail list disagrees with its records was compacted";
  }
  EXPECT_EQ(TempDir::ReadAll(CacheFile()), damaged) << "a refused compaction changed the file";
  {
    // Removing every effect would shift the child file's tails: refused
    // as a whole, nothing changed.
    EffectCacheImpl cache(WStr(folder_.c_str()), 2);
    const auto all = [](const EffectTable::Entry&, const EffectCacheImpl::Removed&, std::uint64_t) { return true; };
    EXPECT_FALSE(cache.RemoveStored(all, false, nullptr));
  }
  EXPECT_EQ(TempDir::ReadAll(CacheFile()), damaged) << "a refused removal changed the file";
  // The records still say where each tail lies: every effect reads back.
  ExpectOthersIntact({}, "the refusals");
}

}  // namespace
}  // namespace Tovrel
