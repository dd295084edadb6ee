#include "streams/StreamTransfer.h"

#include <gtest/gtest.h>

#include "support/MemoryDataStream.h"

namespace Tovrel {
namespace {

using Testing::MemoryDataStream;

TEST(StreamTransferTest, AStreamDeliveringThreeOfFourBytesFailsAndIsDropped) {
  const int before = MemoryDataStream::LiveCount();
  auto* memory = new MemoryDataStream(std::vector<std::uint8_t>{1, 2, 3});
  RefPtr<IDataStream> stream(memory);
  std::uint8_t buffer[4] = {};
  EXPECT_NO_THROW(EXPECT_FALSE(StreamTransfer::ReadExact(stream, buffer, 4)));
  EXPECT_FALSE(stream);
  EXPECT_EQ(MemoryDataStream::LiveCount(), before);
}

TEST(StreamTransferTest, AShortWriteFailsAndDropsTheStream) {
  RefPtr<IDataStream> stream(new MemoryDataStream(3));
  const std::uint8_t bytes[4] = {1, 2, 3, 4};
  EXPECT_FALSE(StreamTransfer::WriteExact(stream, bytes, 4));
  EXPECT_FALSE(stream);
}

TEST(StreamTransferTest, AnExceptionFromTheStreamIsCaught) {
  auto* memory = new MemoryDataStream(16);
  memory->ThrowOnTransfer();
  RefPtr<IDataStream> stream(memory);
  std::uint8_t buffer[4] = {};
  EXPECT_NO_THROW(EXPECT_FALSE(StreamTransfer::ReadExact(stream, buffer, 4)));
  EXPECT_FALSE(stream);
  auto* other = new MemoryDataStream(16);
  other->ThrowOnTransfer();
  RefPtr<IDataStream> written(other);
  EXPECT_NO_THROW(EXPECT_FALSE(StreamTransfer::WriteExact(written, buffer, 4)));
  EXPECT_FALSE(written);
}

TEST(StreamTransferTest, NullArgumentsOrZeroLengthReturnFalseAndKeepTheStream) {
  RefPtr<IDataStream> none;
  std::uint8_t buffer[4] = {};
  EXPECT_FALSE(StreamTransfer::ReadExact(none, buffer, 4));
  EXPECT_FALSE(StreamTransfer::WriteExact(none, buffer, 4));
  RefPtr<IDataStream> stream(new MemoryDataStream(8));
  EXPECT_FALSE(StreamTransfer::ReadExact(stream, nullptr, 4));
  EXPECT_FALSE(StreamTransfer::ReadExact(stream, buffer, 0));
  EXPECT_FALSE(StreamTransfer::WriteExact(stream, nullptr, 4));
  EXPECT_FALSE(StreamTransfer::WriteExact(stream, buffer, 0));
  EXPECT_TRUE(stream);
  EXPECT_EQ(stream->GetPosition(), 0u);
}

TEST(StreamTransferTest, ExactTransfersSucceedAndKeepTheStream) {
  RefPtr<IDataStream> stream(new MemoryDataStream(8));
  const std::uint8_t bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  ASSERT_TRUE(StreamTransfer::WriteExact(stream, bytes, 8));
  ASSERT_TRUE(stream->Seek(0, 0));
  std::uint8_t back[8] = {};
  ASSERT_TRUE(StreamTransfer::ReadExact(stream, back, 8));
  EXPECT_TRUE(stream);
  EXPECT_EQ(std::vector<std::uint8_t>(back, back + 8), std::vector<std::uint8_t>(bytes, bytes + 8));
}

TEST(StreamTransferTest, AByteTabRoundTripsWithItsLengthFirst) {
  auto* memory = new MemoryDataStream(8 + 5 + 8);
  RefPtr<IDataStream> stream(memory);
  Tab<unsigned char> tab;
  const unsigned char bytes[5] = {9, 8, 7, 6, 5};
  tab.Append(5, bytes);
  ASSERT_TRUE(StreamTransfer::WriteByteTab(tab, stream));
  Tab<unsigned char> empty;
  ASSERT_TRUE(StreamTransfer::WriteByteTab(empty, stream));
  const std::vector<std::uint8_t> expected{5, 0, 0, 0, 0, 0, 0, 0, 9, 8, 7, 6, 5, 0, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(memory->Bytes(), expected);
  ASSERT_TRUE(stream->Seek(0, 0));
  Tab<unsigned char> back;
  ASSERT_TRUE(StreamTransfer::ReadByteTab(back, stream, 5));
  ASSERT_EQ(back.Count(), 5);
  EXPECT_EQ(*back.Addr(4), 5);
  back.SetCount(3);
  ASSERT_TRUE(StreamTransfer::ReadByteTab(back, stream, 0));
  EXPECT_EQ(back.Count(), 0);
}

TEST(StreamTransferTest, BytesFromMemoryTakeTheByteTabForm) {
  auto* memory = new MemoryDataStream(8 + 3 + 8);
  RefPtr<IDataStream> stream(memory);
  const std::uint8_t bytes[3] = {0xA1, 0xB2, 0xC3};
  ASSERT_TRUE(StreamTransfer::WriteBytes(bytes, 3, stream));
  ASSERT_TRUE(StreamTransfer::WriteBytes(nullptr, 0, stream));
  const std::vector<std::uint8_t> expected{3, 0, 0, 0, 0, 0, 0, 0, 0xA1, 0xB2, 0xC3, 0, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(memory->Bytes(), expected);
  RefPtr<IDataStream> none;
  EXPECT_FALSE(StreamTransfer::WriteBytes(bytes, 3, none));
}

TEST(StreamTransferTest, AByteTabLongerThanAllowedIsRefused) {
  const std::vector<std::uint8_t> bytes{6, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3, 4, 5, 6};
  RefPtr<IDataStream> stream(new MemoryDataStream(bytes));
  Tab<unsigned char> tab;
  EXPECT_FALSE(StreamTransfer::ReadByteTab(tab, stream, 5));
  EXPECT_FALSE(stream);
  RefPtr<IDataStream> huge(new MemoryDataStream(std::vector<std::uint8_t>{0, 0, 0, 0x80, 0, 0, 0, 0}));
  EXPECT_FALSE(StreamTransfer::ReadByteTab(tab, huge, ~std::uint64_t{0}));
  RefPtr<IDataStream> none;
  EXPECT_FALSE(StreamTransfer::ReadByteTab(tab, none, 10));
  EXPECT_FALSE(StreamTransfer::WriteByteTab(tab, none));
}

TEST(StreamTransferTest, AByteTabCutShortDropsTheStream) {
  RefPtr<IDataStream> stream(new MemoryDataStream(std::vector<std::uint8_t>{4, 0, 0, 0, 0, 0, 0, 0, 1, 2}));
  Tab<unsigned char> tab;
  EXPECT_FALSE(StreamTransfer::ReadByteTab(tab, stream, 10));
  EXPECT_FALSE(stream);
  EXPECT_EQ(tab.Count(), 4);
}

}  // namespace
}  // namespace Tovrel
