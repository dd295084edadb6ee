#include "effectcache/EffectPayload.h"

#include <gtest/gtest.h>

#include "effectcache/EffectCompression.h"
#include "streams/StreamTransfer.h"
#include "support/EffectTesting.h"
#include "support/PackageTesting.h"
#include "support/TempDir.h"
#include "tovrel/FilePackage.h"

namespace Tovrel {
namespace {

using Testing::EffectTesting;
using Testing::PackageTesting;
using Testing::TempDir;

using Result = EffectPayload::Result;

// A package holding one effect stored as the cache stores it.
class EffectPayloadTest : public testing::Test {
 protected:
  void SetUp() override {
    package_ = CreateFilePackage(PackageTesting::Config(path_));
    ASSERT_TRUE(package_);
    Tab<unsigned char> compressed;
    compressed.SetCount(static_cast<INT_PTR>(EffectCompression::CompressBound(bytes_.size())));
    std::uint64_t length = static_cast<std::uint64_t>(compressed.Count());
    ASSERT_EQ(EffectCompression::CompressEffect(compressed.Addr(0), length, bytes_.data(), bytes_.size(), 2), 0);
    compressed.SetCount(static_cast<INT_PTR>(length));
    record_ = EffectRecord{package_->CreateStream(length + 8), 2, static_cast<std::uint32_t>(bytes_.size()), 0, {},
                           static_cast<std::uint32_t>(length), 0};
    RefPtr<IDataStream> stream = package_->OpenStream(record_.streamId);
    ASSERT_TRUE(StreamTransfer::WriteByteTab(compressed, stream));
  }

  Result ReadAll(const EffectRecord& record, Tab<unsigned char>& data) {
    Tab<unsigned char> compressed;
    const Result read = EffectPayload::ReadCompressed(*package_, record, compressed);
    return read == Result::kOk ? EffectPayload::Decompress(record, compressed, data) : read;
  }

  TempDir dir_;
  std::wstring path_ = dir_.File("cache.dat");
  RefPtr<IDataStreamSet> package_;
  std::vector<unsigned char> bytes_ = EffectTesting::Bytes(5, 20000, true);
  EffectRecord record_{};
};

TEST_F(EffectPayloadTest, AStoredEffectComesBackWhole) {
  Tab<unsigned char> data;
  EXPECT_EQ(ReadAll(record_, data), Result::kOk);
  EXPECT_EQ(EffectTesting::ToVector(data), bytes_);
}

TEST_F(EffectPayloadTest, AMissingStreamIsNamed) {
  EffectRecord record = record_;
  record.streamId = 99;
  Tab<unsigned char> data;
  EXPECT_EQ(ReadAll(record, data), Result::kNoStream);
}

TEST_F(EffectPayloadTest, ARecordWhoseSizesDisagreeWithItsStream) {
  EffectRecord record = record_;
  record.compressedSize += 1;
  Tab<unsigned char> data;
  EXPECT_EQ(ReadAll(record, data), Result::kSizeMismatch);
  record = record_;
  record.uncompressedSize += 1;
  EXPECT_EQ(ReadAll(record, data), Result::kLengthMismatch);
  EXPECT_EQ(data.Count(), static_cast<INT_PTR>(bytes_.size() + 1));
}

TEST_F(EffectPayloadTest, DamagedCompressedBytesAreCorrupt) {
  Tab<unsigned char> compressed;
  ASSERT_EQ(EffectPayload::ReadCompressed(*package_, record_, compressed), Result::kOk);
  for (INT_PTR i = 10; i < 20; ++i) compressed[i] = static_cast<unsigned char>(~compressed[i]);
  Tab<unsigned char> data;
  EXPECT_EQ(EffectPayload::Decompress(record_, compressed, data), Result::kCorrupt);
}

TEST_F(EffectPayloadTest, AStreamHoldingNoByteBlockIsUnreadable) {
  const std::uint64_t id = package_->CreateStream(4);
  EffectRecord record = record_;
  record.streamId = id;
  Tab<unsigned char> data;
  EXPECT_EQ(ReadAll(record, data), Result::kUnreadable);
  EXPECT_STRNE(EffectPayload::Describe(Result::kUnreadable), EffectPayload::Describe(Result::kCorrupt));
}

}  // namespace
}  // namespace Tovrel
