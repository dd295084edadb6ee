#include "effectcache/EffectCacheHeader.h"

#include <gtest/gtest.h>

#include <vector>

#include "pagefile/LittleEndian.h"

namespace Tovrel {
namespace {

// Appends a block with the given tag and payload to user data.
void AddBlock(std::vector<std::uint8_t>& data, std::uint32_t tag, const std::vector<std::uint8_t>& payload) {
  const std::size_t at = data.size();
  data.resize(at + 12 + payload.size());
  LittleEndian::Store32(data.data() + at, tag);
  LittleEndian::Store64(data.data() + at + 4, payload.size());
  std::copy(payload.begin(), payload.end(), data.begin() + static_cast<long>(at + 12));
}

std::vector<std::uint8_t> Payload(const EffectCacheHeader& header) {
  std::vector<std::uint8_t> payload(EffectCacheHeader::kPayloadSize);
  header.Encode(payload.data());
  return payload;
}

TEST(EffectCacheHeaderTest, TheBlockIsFoundBehindOtherBlocks) {
  std::vector<std::uint8_t> data;
  AddBlock(data, 7, {1, 2, 3});
  AddBlock(data, 99, {});
  const EffectCacheHeader written{13, 42, 5, 0xAAAA, 0xBBBB};
  AddBlock(data, EffectCacheHeader::kTag, Payload(written));
  EXPECT_EQ(EffectCacheHeader::FindBlock(data.data(), data.size()), 27u);
  EffectCacheHeader header{};
  ASSERT_TRUE(EffectCacheHeader::Read(data.data(), data.size(), header));
  EXPECT_EQ(header.effectCount, 42u);
  EXPECT_EQ(header.indexStreamId, 5u);
  EXPECT_EQ(header.reserved1, 0xAAAAu);
  EXPECT_EQ(header.reserved2, 0xBBBBu);
}

TEST(EffectCacheHeaderTest, TheTagIsTwentyNinetyOneThirtyAndTheBlockFortyBytes) {
  std::vector<std::uint8_t> data;
  AddBlock(data, 20091030, Payload(EffectCacheHeader::Empty()));
  ASSERT_EQ(data.size(), 40u);
  EXPECT_EQ(data[0], 0x96);
  EXPECT_EQ(data[1], 0x90);
  EXPECT_EQ(data[2], 0x32);
  EXPECT_EQ(data[3], 0x01);
  EffectCacheHeader header{};
  ASSERT_TRUE(EffectCacheHeader::Read(data.data(), data.size(), header));
  EXPECT_EQ(header.indexStreamId, EffectCacheHeader::kNoIndex);
}

TEST(EffectCacheHeaderTest, AWrongVersionOrCountMakesTheHeaderUnreadable) {
  for (std::uint32_t version : {12u, 14u}) {
    std::vector<std::uint8_t> data;
    AddBlock(data, EffectCacheHeader::kTag, Payload(EffectCacheHeader{version, 0, 1, 0, 0}));
    EffectCacheHeader header{};
    EXPECT_FALSE(EffectCacheHeader::Read(data.data(), data.size(), header)) << version;
  }
  std::vector<std::uint8_t> data;
  AddBlock(data, EffectCacheHeader::kTag, Payload(EffectCacheHeader{13, 8388609, 1, 0, 0}));
  EffectCacheHeader header{};
  EXPECT_FALSE(EffectCacheHeader::Read(data.data(), data.size(), header));
  data.clear();
  AddBlock(data, EffectCacheHeader::kTag, Payload(EffectCacheHeader{13, 8388608, 1, 0, 0}));
  EXPECT_TRUE(EffectCacheHeader::Read(data.data(), data.size(), header));
}

TEST(EffectCacheHeaderTest, BlocksRunningPastTheEndAreNotFollowed) {
  std::vector<std::uint8_t> data;
  AddBlock(data, 7, std::vector<std::uint8_t>(20, 0));
  AddBlock(data, EffectCacheHeader::kTag, Payload(EffectCacheHeader::Empty()));
  EffectCacheHeader header{};
  for (std::size_t cut = 0; cut < data.size(); ++cut) {
    EXPECT_FALSE(EffectCacheHeader::Read(data.data(), cut, header)) << cut;
  }
  LittleEndian::Store64(data.data() + 4, 0xFFFFFFFFull);  // a first block longer than everything
  EXPECT_EQ(EffectCacheHeader::FindBlock(data.data(), data.size()), EffectCacheHeader::kNotFound);
}

TEST(EffectCacheHeaderTest, AShortPayloadIsRefused) {
  std::vector<std::uint8_t> data;
  AddBlock(data, EffectCacheHeader::kTag, std::vector<std::uint8_t>(27, 0));
  EffectCacheHeader header{};
  EXPECT_FALSE(EffectCacheHeader::Read(data.data(), data.size(), header));
}

TEST(EffectCacheHeaderTest, OnlyTheLowThirtyTwoBitsOfALengthAreRead) {
  std::vector<std::uint8_t> data;
  AddBlock(data, 7, {1, 2, 3, 4});
  LittleEndian::Store64(data.data() + 4, (std::uint64_t{1} << 32) | 4);
  AddBlock(data, EffectCacheHeader::kTag, Payload(EffectCacheHeader::Empty()));
  EXPECT_EQ(EffectCacheHeader::FindBlock(data.data(), data.size()), 16u);
}

}  // namespace
}  // namespace Tovrel
