#include "support/DataStreamContract.h"

#include <vector>

namespace Tovrel {
namespace Testing {
namespace {

GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(DataStreamContract);

TEST_P(DataStreamContract, ReadAfterSeekingToTheEndReturnsNothing) {
  RefPtr<IDataStream> stream = Make(10000);
  ASSERT_TRUE(stream->Seek(2, 0));
  std::uint8_t buffer[16];
  EXPECT_EQ(stream->Read(buffer, sizeof buffer), 0u);
  EXPECT_EQ(stream->GetPosition(), stream->GetSize());
}

TEST_P(DataStreamContract, WriteNeverChangesTheSize) {
  RefPtr<IDataStream> stream = Make(9000);
  std::vector<std::uint8_t> bytes(20000, 0x5C);
  EXPECT_EQ(stream->Write(bytes.data(), bytes.size()), 9000u);
  EXPECT_EQ(stream->GetSize(), 9000u);
  EXPECT_EQ(stream->Write(bytes.data(), 1), 0u);
  EXPECT_EQ(stream->GetSize(), 9000u);
}

TEST_P(DataStreamContract, SeeksOutsideTheStreamFailAndKeepThePosition) {
  RefPtr<IDataStream> stream = Make(100);
  ASSERT_TRUE(stream->Seek(0, 40));
  EXPECT_FALSE(stream->Seek(0, -1));
  EXPECT_FALSE(stream->Seek(1, 61));
  EXPECT_FALSE(stream->Seek(2, 1));
  EXPECT_EQ(stream->GetPosition(), 40u);
  ASSERT_TRUE(stream->Seek(1, -40));
  EXPECT_EQ(stream->GetPosition(), 0u);
  ASSERT_TRUE(stream->Seek(2, -100));
  EXPECT_EQ(stream->GetPosition(), 0u);
}

TEST_P(DataStreamContract, BytesWrittenReadBackAndReadsStopAtTheEnd) {
  RefPtr<IDataStream> stream = Make(20000);
  std::vector<std::uint8_t> bytes(20000);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(i * 31 + 7);
  ASSERT_EQ(stream->Write(bytes.data(), bytes.size()), bytes.size());
  ASSERT_TRUE(stream->Seek(0, 19990));
  std::vector<std::uint8_t> back(64);
  EXPECT_EQ(stream->Read(back.data(), back.size()), 10u);
  ASSERT_TRUE(stream->Seek(0, 0));
  back.assign(20000, 0);
  ASSERT_EQ(stream->Read(back.data(), back.size()), back.size());
  EXPECT_EQ(back, bytes);
}

}  // namespace
}  // namespace Testing
}  // namespace Tovrel
