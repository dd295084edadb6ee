// A cache file cut short, as a full disk or a copy that stopped half-way
// leaves it: the cache opens what is left, or salvages it when it does not
// load, and hands back only bytes that are exactly what was stored.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "effectcache/EffectCacheImpl.h"
#include "pagefile/PageGeometry.h"
#include "platform/WideText.h"
#include "support/EffectTesting.h"
#include "support/PackageLayout.h"
#include "support/TempDir.h"

namespace Tovrel {
namespace {

using Testing::EffectTesting;
using Testing::TempDir;

constexpr int kSmall = 20;    // compressible, their tails in the first child file
constexpr int kEffects = 23;  // the last three large and random: whole pages of their own

std::wstring Name(int i) { return L"fx/" + std::to_wstring(i); }
std::vector<unsigned char> Bytes(int i) {
  return i < kSmall ? EffectTesting::Bytes(static_cast<std::uint32_t>(40 + i), 2500, true)
                    : EffectTesting::Bytes(static_cast<std::uint32_t>(40 + i), 20000, false);
}

// A file saved twice: first the small effects, then the large ones, whose
// whole pages come after the index that the second save rewrote in the
// first child file. So a cut can leave the index and lose effects.
class EffectCacheCutFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (int round = 0; round < 2; ++round) {
      auto cache = Open();
      for (int i = round == 0 ? 0 : kSmall; i < (round == 0 ? kSmall : kEffects); ++i) {
        const auto bytes = Bytes(i);
        ASSERT_TRUE(cache->CacheCompiledEffect(WStr(Name(i).c_str()), bytes.data(), bytes.size(), false));
      }
    }
    good_ = TempDir::ReadAll(CacheFile());
    index_ = EffectTesting::ReadIndex(CacheFile());
    shape_ = EffectTesting::Shape(CacheFile());
    layout_.reset(new Testing::PackageLayout(CacheFile()));
  }

  std::unique_ptr<EffectCacheImpl> Open() {
    return std::unique_ptr<EffectCacheImpl>(new EffectCacheImpl(WStr(folder_.c_str()), 2));
  }
  std::wstring CacheFile() const { return dir_.File("norvaneFxoCache.dat"); }
  void CutAt(std::size_t bytes) {
    TempDir::WriteAll(CacheFile(), std::vector<std::uint8_t>(good_.begin(), good_.begin() + static_cast<std::ptrdiff_t>(bytes)));
  }
  // True when every byte of the stream lies in the first `pages` pages.
  bool Within(std::uint64_t stream, std::uint64_t pages) const {
    std::uint64_t all = 0;
    for (const auto& piece : layout_->PiecesOf(stream)) all += piece.bytes;
    return layout_->BytesWithin(stream, pages) == all;
  }

  TempDir dir_;
  std::wstring folder_ = dir_.Path().wstring();
  std::vector<std::uint8_t> good_;
  std::map<std::string, EffectRecord> index_;
  EffectTesting::FileShape shape_{};
  std::unique_ptr<Testing::PackageLayout> layout_;
};

// At a page boundary: while the head chain and the index are left, every
// effect whose stream is left is found byte for byte and every other one
// misses. With the index cut, the file does not load and is salvaged: the
// effects whose entries lie whole in what is left of the index, and whose
// streams are left, come back, and no other. Without the head chain
// nothing can be read, and the cache starts empty.
TEST_F(EffectCacheCutFileTest, AtAPageBoundaryTheEffectsWhoseBytesAreLeftAreFoundAndNoOther) {
  ASSERT_GT(good_.size(), 12 * kPageSize);
  // Where each entry of the index ends.
  std::map<std::string, std::uint64_t> entryEnds;
  std::uint64_t at = 0;
  for (const std::string& name : EffectTesting::IndexNames(CacheFile())) {
    at += EffectRecord::kSize + 8 + name.size();
    entryEnds[name] = at;
  }
  int partly = 0;    // cuts that keep the index and lose effects
  int salvaged = 0;  // cuts of the index that gave effects back
  for (std::uint64_t pages = 0; pages <= good_.size() / kPageSize; ++pages) {
    SCOPED_TRACE(pages);
    CutAt(pages * kPageSize);
    const bool head = layout_->HeadChainWithin(pages);
    const bool cache = head && Within(shape_.header.indexStreamId, pages);
    const std::uint64_t indexLeft = head ? layout_->BytesWithin(shape_.header.indexStreamId, pages) : 0;
    auto opened = Open();
    ASSERT_TRUE(opened->IsEnabled());
    int found = 0;
    int expected = 0;
    for (int i = 0; i < kEffects; ++i) {
      const std::string name = WideText::ToUtf8(Name(i));
      const bool left = head && entryEnds.at(name) <= indexLeft && Within(index_.at(name).streamId, pages);
      expected += left ? 1 : 0;
      Tab<unsigned char> data;
      const bool hit = opened->SearchCachedEffects(WStr(Name(i).c_str()), data);
      EXPECT_EQ(hit, left) << i;
      if (hit) {
        EXPECT_EQ(EffectTesting::ToVector(data), Bytes(i)) << i;
        ++found;
      }
    }
    EXPECT_EQ(opened->GetNumberOfEffectsInFile(), cache ? static_cast<std::size_t>(kEffects) : static_cast<std::size_t>(expected));
    if (cache && found < kEffects) ++partly;
    if (!cache && found > 0) ++salvaged;
  }
  EXPECT_GT(partly, 0) << "no cut kept the index and lost an effect";
  EXPECT_GT(salvaged, 0) << "no cut of the index gave effects back";
}

// Anywhere, a page boundary or not: every search misses or hands back
// exactly the stored bytes, and the cache stays usable.
TEST_F(EffectCacheCutFileTest, AnywhereEverySearchMissesOrFindsTheStoredBytes) {
  int hits = 0;
  int misses = 0;
  for (std::size_t cut = 0; cut < good_.size(); cut += 997) {
    for (std::size_t at : {cut, cut / kPageSize * kPageSize + kPageSize - 1}) {
      SCOPED_TRACE(at);
      CutAt(at);
      auto opened = Open();
      ASSERT_TRUE(opened->IsEnabled());
      for (int i = 0; i < kEffects; ++i) {
        Tab<unsigned char> data;
        const bool hit = opened->SearchCachedEffects(WStr(Name(i).c_str()), data);
        ++(hit ? hits : misses);
        if (hit) {
          EXPECT_EQ(EffectTesting::ToVector(data), Bytes(i)) << i;
        }
      }
    }
  }
  EXPECT_GT(hits, 0);
  EXPECT_GT(misses, 0);
}

}  // namespace
}  // namespace Tovrel
