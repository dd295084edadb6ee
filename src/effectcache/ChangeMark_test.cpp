// The change mark: a new generation for a file without one, one change
// more per write, only its own block's bytes read as a mark, and the block
// kept last in the user data with every other block left as it was.
#include "effectcache/ChangeMark.h"

#include <gtest/gtest.h>

#include <vector>

#include "effectcache/EffectCacheHeader.h"
#include "effectcache/UserDataBlock.h"
#include "package/PagedFilePackage.h"
#include "pagefile/LittleEndian.h"
#include "support/InstalledFileSystem.h"
#include "support/PackageTesting.h"

namespace Tovrel {
namespace {

using Testing::PackageTesting;

std::vector<std::uint8_t> UserData(const IDataStreamSet& package) {
  return std::vector<std::uint8_t>(package.GetUserData(), package.GetUserData() + package.GetUserDataSize());
}

void AddBlock(IDataStreamSet& package, std::uint32_t tag, std::uint8_t fill, std::uint64_t size) {
  std::uint8_t* payload = UserDataBlock::Ensure(package, tag, size);
  ASSERT_NE(payload, nullptr);
  for (std::uint64_t i = 0; i < size; ++i) payload[i] = static_cast<std::uint8_t>(fill + i);
}

TEST(ChangeMarkTest, AFileWithoutAMarkGetsANewGenerationAndEveryWriteCountsOneMore) {
  const ChangeMark none;
  EXPECT_FALSE(none.present);
  EXPECT_FALSE(none.Proves(none));
  const ChangeMark first = none.Next();
  const ChangeMark other = none.Next();
  EXPECT_TRUE(first.present);
  EXPECT_EQ(first.changes, 1u);
  EXPECT_NE(first.generation, other.generation);
  EXPECT_FALSE(first.Proves(other));
  const ChangeMark second = first.Next();
  EXPECT_EQ(second.generation, first.generation);
  EXPECT_EQ(second.changes, 2u);
  EXPECT_TRUE(second.Proves(second));
  EXPECT_FALSE(second.Proves(first));
  EXPECT_FALSE(second.Proves(none));
}

TEST(ChangeMarkTest, OnlyAMarkBlockOfThisVersionReadsAsAMark) {
  std::uint8_t block[ChangeMark::kBlockSize] = {};
  LittleEndian::Store32(block, ChangeMark::kTag);
  LittleEndian::Store64(block + 4, ChangeMark::kPayloadSize);
  LittleEndian::Store32(block + 12, ChangeMark::kVersion);
  LittleEndian::Store64(block + 20, 77);
  LittleEndian::Store64(block + 28, 5);
  const ChangeMark mark = ChangeMark::FromBlock(block);
  ASSERT_TRUE(mark.present);
  EXPECT_EQ(mark.generation, 77u);
  EXPECT_EQ(mark.changes, 5u);
  LittleEndian::Store32(block + 12, 2);
  EXPECT_FALSE(ChangeMark::FromBlock(block).present);
  LittleEndian::Store32(block + 12, ChangeMark::kVersion);
  LittleEndian::Store64(block + 4, 23);
  EXPECT_FALSE(ChangeMark::FromBlock(block).present);
  LittleEndian::Store64(block + 4, ChangeMark::kPayloadSize);
  LittleEndian::Store32(block, EffectCacheHeader::kTag);
  EXPECT_FALSE(ChangeMark::FromBlock(block).present);
}

TEST(ChangeMarkTest, TheMarkIsWrittenLastAndMovedThereWhenABlockFollowsIt) {
  Testing::InstalledFileSystem files;
  RefPtr<PagedFilePackage> package(new PagedFilePackage(PackageTesting::Config(L"mark.dat", 8)));
  package->Create();
  IDataStreamSet& set = *package;
  AddBlock(set, 7, 1, 5);
  const ChangeMark first = ChangeMark{}.Next();
  ASSERT_TRUE(ChangeMark::WriteLast(set, first));
  const std::uint64_t size = set.GetUserDataSize();
  EXPECT_EQ(size, 17u + ChangeMark::kBlockSize);
  EXPECT_TRUE(first.Proves(ChangeMark::Read(set)));
  EXPECT_TRUE(first.Proves(ChangeMark::FromBlock(set.GetUserData() + size - ChangeMark::kBlockSize)));
  // Written again in place, then moved behind a block appended after it.
  const ChangeMark second = first.Next();
  ASSERT_TRUE(ChangeMark::WriteLast(set, second));
  EXPECT_EQ(set.GetUserDataSize(), size);
  AddBlock(set, 9, 50, 3);
  const std::vector<std::uint8_t> blockNine(set.GetUserData() + size, set.GetUserData() + size + 15);
  const ChangeMark third = second.Next();
  ASSERT_TRUE(ChangeMark::WriteLast(set, third));
  const std::vector<std::uint8_t> data = UserData(set);
  ASSERT_EQ(data.size(), size + 15);
  EXPECT_TRUE(third.Proves(ChangeMark::FromBlock(data.data() + data.size() - ChangeMark::kBlockSize)));
  EXPECT_EQ(std::vector<std::uint8_t>(data.begin() + 17, data.begin() + 32), blockNine);
  EXPECT_EQ(UserDataBlock::Find(data.data(), data.size(), 7), 0u);
  EXPECT_EQ(UserDataBlock::Find(data.data(), data.size(), 9), 17u);
  // Saved, the file's head stream ends in it.
  ASSERT_TRUE(package->Save());
  std::uint8_t tail[ChangeMark::kBlockSize];
  ASSERT_TRUE(package->ReadSavedUserDataTail(tail, sizeof tail));
  EXPECT_TRUE(third.Proves(ChangeMark::FromBlock(tail)));
}

}  // namespace
}  // namespace Tovrel
