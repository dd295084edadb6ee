// Damaged copies of one cache file, opened as a host opens them: cut at
// every page boundary, and 1 to 16 bytes flipped in the head chain's
// tables, in the index, in effects' streams or anywhere. Whatever a copy
// gives back is exactly what was stored under that name; and the test
// counts, over all copies, the effects that come back against those
// whose streams the copy still holds intact, and those that came back
// before salvage (when a file that did not load was replaced empty).
//
// CI runs the cuts and 240 flipped copies; TOVREL_SALVAGE_COPIES=N runs N
// flipped copies (the figures in the closing notes).
#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "effectcache/EffectCacheImpl.h"
#include "effectcache/EffectCacheSalvage.h"
#include "pagefile/PageGeometry.h"
#include "support/EffectTesting.h"
#include "support/InstalledFileSystem.h"
#include "support/PackageLayout.h"

namespace Tovrel {
namespace {

using Testing::EffectTesting;

constexpr int kEffects = 40;
constexpr const wchar_t* kFolder = L"damage";

std::wstring Name(int i) { return L"dmg/" + std::to_wstring(i) + L".fxo"; }
std::vector<unsigned char> Bytes(int i) {
  // Most small and compressible (tails in child files); every seventh
  // large and random, with whole pages of its own.
  if (i % 7 == 6) return EffectTesting::Bytes(static_cast<std::uint32_t>(i + 90), 17000 + 997 * static_cast<std::size_t>(i), false);
  return EffectTesting::Bytes(static_cast<std::uint32_t>(i + 90), 800 + 331 * static_cast<std::size_t>(i), true);
}

// Where bytes may be flipped: ranges of file offsets.
using Ranges = std::vector<std::pair<std::uint64_t, std::uint64_t>>;

struct Tally {
  std::uint64_t copies = 0;
  std::uint64_t loaded = 0;         // opened as they were
  std::uint64_t salvaged = 0;       // did not load; salvaged
  std::uint64_t replacedEmpty = 0;  // did not load; nothing to salvage
  std::uint64_t intact = 0;         // effects whose streams the copies hold intact
  std::uint64_t found = 0;          // effects that came back
  std::uint64_t foundBefore = 0;    // those that came back from copies that loaded
  // Names the cache holds afterwards that were never stored (a damaged
  // name byte the order did not give away), in copies that loaded and in
  // salvaged ones.
  std::uint64_t strangeLoaded = 0;
  std::uint64_t strangeSalvaged = 0;

  void Print(const std::string& what) const {
    std::cout << what << ": " << copies << " copies (" << loaded << " loaded, " << salvaged << " salvaged, "
              << replacedEmpty << " replaced empty); effects found " << found << " of " << intact
              << " with intact streams; before salvage " << foundBefore << "; names never stored: " << strangeLoaded
              << " in loaded copies, " << strangeSalvaged << " in salvaged ones\n";
  }
};

class EffectCacheSalvageDamageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (int round = 0; round < 2; ++round) {
      EffectCacheImpl cache(WStr(kFolder), 2);
      ASSERT_TRUE(cache.IsEnabled());
      for (int i = round; i < kEffects; i += 2) {
        const auto bytes = Bytes(i);
        ASSERT_TRUE(cache.CacheCompiledEffect(WStr(Name(i).c_str()), bytes.data(), bytes.size(), i % 5 == 0));
      }
      cache.ForceSaveToFile();
    }
    good_ = files_.Memory().ReadAll(File());
    layout_.reset(new Testing::PackageLayout(File()));
    for (const auto& entry : EffectTesting::ReadIndex(File())) streams_[entry.first] = entry.second.streamId;
    indexStream_ = EffectTesting::Shape(File()).header.indexStreamId;
  }

  static std::wstring File() { return std::wstring(CacheFileNames::CacheFilePathFor(WStr(kFolder)).data()); }

  Ranges StreamRanges(std::uint64_t stream) const {
    Ranges ranges;
    for (const auto& piece : layout_->PiecesOf(stream)) {
      const std::uint64_t from = PageOffset(piece.page) + piece.offset;
      ranges.emplace_back(from, from + piece.bytes);
    }
    return ranges;
  }
  Ranges HeadRanges() const {
    Ranges ranges;
    for (std::uint64_t page : layout_->HeadPages()) ranges.emplace_back(PageOffset(page), PageOffset(page) + kPageSize);
    return ranges;
  }
  Ranges EffectRanges() const {
    Ranges ranges;
    for (const auto& stream : streams_) {
      for (const auto& range : StreamRanges(stream.second)) ranges.push_back(range);
    }
    return ranges;
  }

  // 1 to 16 bytes of the ranges flipped, chosen by `seed`.
  std::vector<std::uint8_t> Flipped(const Ranges& ranges, std::uint32_t seed) const {
    std::mt19937 random(seed);
    std::uint64_t total = 0;
    for (const auto& range : ranges) total += range.second - range.first;
    std::vector<std::uint8_t> copy = good_;
    const int count = 1 + static_cast<int>(random() % 16);
    for (int k = 0; k < count; ++k) {
      std::uint64_t at = random() % total;
      for (const auto& range : ranges) {
        if (at < range.second - range.first) {
          copy[static_cast<std::size_t>(range.first + at)] ^= static_cast<std::uint8_t>(1 + random() % 255);
          break;
        }
        at -= range.second - range.first;
      }
    }
    return copy;
  }

  // Opens the copy as a host does and counts; every effect found must be
  // exactly the stored one.
  void Open(const std::vector<std::uint8_t>& copy, Tally& tally) {
    files_.Memory().WriteAll(File(), copy);
    bool salvaged = false;
    OpenAndSearch(copy, tally, &salvaged);
    if (HasFatalFailure()) return;
    (salvaged ? tally.strangeSalvaged : tally.strangeLoaded) += StrangeNames();
  }

  // Names of the file's index that were never stored; 0 for a file whose
  // index cannot be read.
  std::uint64_t StrangeNames() const {
    std::uint64_t strange = 0;
    try {
      for (const auto& entry : EffectTesting::ReadIndex(File())) strange += streams_.count(entry.first) == 0 ? 1 : 0;
    } catch (const std::exception&) {
    }
    return strange;
  }

  void OpenAndSearch(const std::vector<std::uint8_t>& copy, Tally& tally, bool* wasSalvaged) {
    EffectCacheImpl cache(WStr(kFolder), 2);
    ASSERT_TRUE(cache.IsEnabled());
    EffectCacheSalvage::Summary summary;
    const bool salvaged = cache.LastSalvage(&summary);
    *wasSalvaged = salvaged;
    ++tally.copies;
    if (!salvaged) ++tally.loaded;
    if (salvaged && summary.verdict == EffectCacheSalvage::Verdict::kSalvaged) ++tally.salvaged;
    if (salvaged && summary.verdict != EffectCacheSalvage::Verdict::kSalvaged) ++tally.replacedEmpty;
    for (int i = 0; i < kEffects; ++i) {
      const std::string name = "dmg/" + std::to_string(i) + ".fxo";
      if (layout_->SameBytes(streams_.at(name), good_, copy)) ++tally.intact;
      Tab<unsigned char> data;
      if (!cache.SearchCachedEffects(WStr(Name(i).c_str()), data)) continue;
      ASSERT_EQ(EffectTesting::ToVector(data), Bytes(i)) << name << " came back with bytes not stored under it";
      ++tally.found;
      if (!salvaged) ++tally.foundBefore;
    }
  }

  static int FlippedCopies() {
    const char* asked = std::getenv("TOVREL_SALVAGE_COPIES");
    return asked != nullptr ? std::atoi(asked) : 240;
  }

  Testing::InstalledFileSystem files_;
  std::vector<std::uint8_t> good_;
  std::unique_ptr<Testing::PackageLayout> layout_;
  std::map<std::string, std::uint64_t> streams_;
  std::uint64_t indexStream_ = 0;
};

TEST_F(EffectCacheSalvageDamageTest, CutsAtEveryPageBoundaryGiveBackOnlyStoredBytes) {
  Tally tally;
  for (std::uint64_t pages = 0; pages <= good_.size() / kPageSize; ++pages) {
    SCOPED_TRACE(pages);
    Open(std::vector<std::uint8_t>(good_.begin(), good_.begin() + static_cast<std::ptrdiff_t>(pages * kPageSize)), tally);
  }
  tally.Print("cut at every page boundary");
  EXPECT_LE(tally.found, tally.intact);
  EXPECT_EQ(tally.strangeSalvaged + tally.strangeLoaded, 0u);
}

TEST_F(EffectCacheSalvageDamageTest, FlippedBytesGiveBackOnlyStoredBytes) {
  const int copies = FlippedCopies();
  const std::vector<std::pair<std::string, Ranges>> places{
      {"tables (head chain)", HeadRanges()},
      {"index", StreamRanges(indexStream_)},
      {"effect streams", EffectRanges()},
      {"anywhere", Ranges{{0, good_.size()}}}};
  Tally all;
  for (const auto& place : places) {
    Tally tally;
    for (int c = 0; c < copies / 4; ++c) {
      SCOPED_TRACE(place.first + " " + std::to_string(c));
      Open(Flipped(place.second, static_cast<std::uint32_t>(c * 4 + 1)), tally);
      if (HasFatalFailure()) return;
    }
    tally.Print("1-16 bytes flipped in " + place.first);
    all.copies += tally.copies;
    all.salvaged += tally.salvaged;
    all.found += tally.found;
    all.foundBefore += tally.foundBefore;
    EXPECT_LE(tally.found, tally.intact) << place.first;
  }
  EXPECT_GT(all.salvaged, 0u) << "no flipped copy was salvaged";
  EXPECT_GT(all.found, all.foundBefore);
}

}  // namespace
}  // namespace Tovrel
