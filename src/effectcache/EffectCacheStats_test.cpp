#include "effectcache/EffectCacheStats.h"

#include <gtest/gtest.h>

#include <vector>

#include "effectcache/UserDataBlock.h"
#include "pagefile/LittleEndian.h"
#include "support/TempDir.h"
#include "tovrel/FilePackage.h"

namespace Tovrel {
namespace {

class EffectCacheStatsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    config_ = PagedFilePackageConfig{path_.c_str(), 16, 100};
    package_ = CreateFilePackage(config_);
    ASSERT_TRUE(package_);
  }
  // Appends a block of `tag` with `payload` bytes of `fill`.
  void AddBlock(std::uint32_t tag, std::uint64_t payload, std::uint8_t fill) {
    const std::uint64_t at = static_cast<const IDataStreamSet&>(*package_).GetUserDataSize();
    ASSERT_TRUE(package_->SetUserDataSize(at + UserDataBlock::kHeadSize + payload));
    std::uint8_t* block = package_->GetUserData() + at;
    LittleEndian::Store32(block, tag);
    LittleEndian::Store64(block + 4, payload);
    for (std::uint64_t i = 0; i < payload; ++i) block[UserDataBlock::kHeadSize + i] = fill;
  }
  std::vector<std::uint8_t> UserData() const {
    const IDataStreamSet& view = *package_;
    return std::vector<std::uint8_t>(view.GetUserData(), view.GetUserData() + view.GetUserDataSize());
  }

  Testing::TempDir dir_;
  std::wstring path_ = dir_.File("stats.pkg");
  PagedFilePackageConfig config_{};
  RefPtr<IDataStreamSet> package_;
};

TEST_F(EffectCacheStatsTest, TheBlockIsMadeAfterTheOthersAndLeavesThemAlone) {
  AddBlock(20091030, 28, 0x11);
  AddBlock(7, 5, 0x22);
  const auto before = UserData();
  EffectCacheStats read;
  EXPECT_FALSE(EffectCacheStats::Read(*package_, read));
  EffectCacheStats counts;
  counts.hits = 5;
  counts.misses = 2;
  counts.cached = 3;
  counts.trimmed = 1;
  const CacheTimeStamp now{2026, 11, 24, 17, 0, 0, 0};
  ASSERT_TRUE(EffectCacheStats::AddTo(*package_, counts, now, false));
  const auto after = UserData();
  ASSERT_EQ(after.size(), before.size() + UserDataBlock::kHeadSize + EffectCacheStats::kPayloadSize);
  EXPECT_TRUE(std::equal(before.begin(), before.end(), after.begin()));
  EXPECT_EQ(LittleEndian::Load32(after.data() + before.size()), EffectCacheStats::kTag);
  ASSERT_TRUE(EffectCacheStats::Read(*package_, read));
  EXPECT_EQ(read.hits, 5u);
  EXPECT_EQ(read.misses, 2u);
  EXPECT_EQ(read.cached, 3u);
  EXPECT_EQ(read.trimmed, 1u);
  EXPECT_EQ(read.zeroed, now);
  // Counts add up; a reset zeroes them and moves the time.
  ASSERT_TRUE(EffectCacheStats::AddTo(*package_, counts, CacheTimeStamp{2027, 1, 1, 0, 0, 0, 0}, false));
  ASSERT_TRUE(EffectCacheStats::Read(*package_, read));
  EXPECT_EQ(read.hits, 10u);
  EXPECT_EQ(read.zeroed, now);
  const CacheTimeStamp later{2027, 2, 2, 0, 0, 0, 0};
  ASSERT_TRUE(EffectCacheStats::AddTo(*package_, EffectCacheStats{}, later, true));
  ASSERT_TRUE(EffectCacheStats::Read(*package_, read));
  EXPECT_FALSE(read.AnyCounts());
  EXPECT_EQ(read.zeroed, later);
  EXPECT_EQ(UserData().size(), after.size());
}

TEST_F(EffectCacheStatsTest, ABlockOfTheTagThatIsNotOursIsNeitherReadNorWritten) {
  AddBlock(EffectCacheStats::kTag, 8, 0x33);  // too short
  const auto before = UserData();
  EffectCacheStats read;
  EXPECT_FALSE(EffectCacheStats::Read(*package_, read));
  EffectCacheStats counts;
  counts.hits = 1;
  EXPECT_FALSE(EffectCacheStats::AddTo(*package_, counts, CacheTimeStamp{}, false));
  EXPECT_EQ(UserData(), before);
}

TEST_F(EffectCacheStatsTest, RemoteCountsGetABlockOfTheirOwnOnlyOnceThereAreAny) {
  const CacheTimeStamp now{2026, 11, 24, 12, 0, 0, 0};
  EffectCacheStats local;
  local.hits = 3;
  ASSERT_TRUE(EffectCacheStats::AddTo(*package_, local, now, false));
  EXPECT_FALSE(EffectCacheStats::HasRemoteBlock(*package_));
  const std::uint64_t withoutRemote = static_cast<const IDataStreamSet&>(*package_).GetUserDataSize();
  EffectCacheStats remote;
  remote.remoteHits = 5;
  remote.remoteMisses = 2;
  remote.remoteErrors = 1;
  remote.remoteBytesIn = 7000;
  remote.remoteBytesOut = 900;
  ASSERT_TRUE(EffectCacheStats::AddTo(*package_, remote, now, false));
  ASSERT_TRUE(EffectCacheStats::AddTo(*package_, remote, now, false));
  EXPECT_TRUE(EffectCacheStats::HasRemoteBlock(*package_));
  EXPECT_EQ(static_cast<const IDataStreamSet&>(*package_).GetUserDataSize(),
            withoutRemote + UserDataBlock::kHeadSize + EffectCacheStats::kRemotePayloadSize);
  EffectCacheStats read;
  ASSERT_TRUE(EffectCacheStats::Read(*package_, read));
  EXPECT_EQ(read.hits, 3u);
  EXPECT_EQ(read.remoteHits, 10u);
  EXPECT_EQ(read.remoteMisses, 4u);
  EXPECT_EQ(read.remoteErrors, 2u);
  EXPECT_EQ(read.remoteBytesIn, 14000u);
  EXPECT_EQ(read.remoteBytesOut, 1800u);
  // Zeroing zeroes both blocks.
  ASSERT_TRUE(EffectCacheStats::AddTo(*package_, EffectCacheStats{}, now, true));
  ASSERT_TRUE(EffectCacheStats::Read(*package_, read));
  EXPECT_EQ(read.hits, 0u);
  EXPECT_EQ(read.remoteHits, 0u);
  EXPECT_EQ(read.remoteBytesOut, 0u);
  EXPECT_TRUE(EffectCacheStats::HasRemoteBlock(*package_));
}

TEST_F(EffectCacheStatsTest, BlocksAreFoundByTagAndEnsuredOnce) {
  AddBlock(1, 3, 0x44);
  AddBlock(2, 0, 0);
  const IDataStreamSet& view = *package_;
  EXPECT_EQ(UserDataBlock::Find(view.GetUserData(), view.GetUserDataSize(), 1), 0u);
  EXPECT_EQ(UserDataBlock::Find(view.GetUserData(), view.GetUserDataSize(), 2), UserDataBlock::kHeadSize + 3);
  EXPECT_EQ(UserDataBlock::Find(view.GetUserData(), view.GetUserDataSize(), 3), UserDataBlock::kNotFound);
  std::uint8_t* first = UserDataBlock::Ensure(*package_, 3, 10);
  ASSERT_NE(first, nullptr);
  first[9] = 0x5A;
  const std::uint64_t size = view.GetUserDataSize();
  std::uint8_t* again = UserDataBlock::Ensure(*package_, 3, 10);
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(again[9], 0x5A);
  EXPECT_EQ(view.GetUserDataSize(), size);
  EXPECT_EQ(UserDataBlock::Ensure(*package_, 1, 4), nullptr);  // the block there is shorter
}

}  // namespace
}  // namespace Tovrel
