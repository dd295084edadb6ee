#include "package/UserData.h"

#include <gtest/gtest.h>

#include "package/SectionIO.h"
#include "pagefile/FileIOException.h"
#include "support/MemoryDataStream.h"

namespace Tovrel {
namespace {

using Testing::MemoryDataStream;

TEST(UserDataTest, ReadsTheLengthAndTheBytes) {
  std::vector<std::uint8_t> bytes;
  SectionIO::Put(bytes, 3);
  bytes.insert(bytes.end(), {7, 8, 9});
  RefPtr<IDataStream> section(new MemoryDataStream(bytes));
  UserData data;
  ASSERT_TRUE(data.Read(section));
  ASSERT_EQ(data.GetSize(), 3u);
  EXPECT_EQ(data.Data()[2], 9);
}

TEST(UserDataTest, AShortLengthOrShortBytesFailTheReadWithoutThrowing) {
  UserData data;
  RefPtr<IDataStream> tooShort(new MemoryDataStream(7));
  EXPECT_FALSE(data.Read(tooShort));
  std::vector<std::uint8_t> bytes;
  SectionIO::Put(bytes, 10);
  bytes.resize(12);
  RefPtr<IDataStream> partial(new MemoryDataStream(bytes));
  EXPECT_FALSE(data.Read(partial));
  EXPECT_EQ(data.GetSize(), 0u);
  bytes.clear();
  SectionIO::Put(bytes, ~std::uint64_t{0});
  RefPtr<IDataStream> huge(new MemoryDataStream(bytes));
  EXPECT_FALSE(data.Read(huge));
}

TEST(UserDataTest, WritesTheLengthThenTheBytes) {
  UserData data;
  ASSERT_TRUE(data.SetSize(2));
  EXPECT_EQ(data.Data()[1], 0);
  data.Data()[0] = 0x41;
  EXPECT_EQ(data.GetSaveSize(), 10u);
  auto* memory = new MemoryDataStream(10);
  RefPtr<IDataStream> out(memory);
  ASSERT_TRUE(data.Write(out));
  EXPECT_EQ(memory->Bytes(), (std::vector<std::uint8_t>{2, 0, 0, 0, 0, 0, 0, 0, 0x41, 0}));
  RefPtr<IDataStream> full(new MemoryDataStream(9));
  EXPECT_THROW(data.Write(full), FileIOException);
  data.Clear();
  EXPECT_EQ(data.Data(), nullptr);
  EXPECT_FALSE(data.SetSize(UserData::kMostBytes + 1));
  EXPECT_EQ(data.GetSize(), 0u);
}

}  // namespace
}  // namespace Tovrel
