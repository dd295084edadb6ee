#include "streams/ChildFileStream.h"

#include <gtest/gtest.h>

#include <map>

#include "pagefile/ChildFileSeeker.h"
#include "streams/PageAllocator.h"
#include "support/TempDir.h"

namespace Tovrel {
namespace {

using Testing::TempDir;

// An owner that keeps the open-stream map as the package does.
class MapOwner : public IStreamOwner {
 public:
  void ForgetStream(std::uint64_t identifier, const ChildFileStream* stream) override {
    ++calls;
    const auto found = open.find(identifier);
    if (found != open.end() && found->second == stream) open.erase(found);
  }
  std::map<std::uint64_t, ChildFileStream*> open;
  int calls = 0;
};

class ChildFileStreamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    cache_.reset(new FilePageCache(dir_.File("child.bin").c_str(), 4));
    const std::uint64_t page = allocator_->AllocatePage(0);
    cache_->EnsureFileCoversPage(page);
    ASSERT_TRUE(seeker_->AttachStream(allocator_.Get(), StreamEntry{7, 8192, page, 1}, TailLocation{}));
  }

  RefPtr<ChildFileStream> Open(std::uint64_t identifier, bool writable = true) {
    RefPtr<IPagedFileSeeker> seeker(seeker_.Get());
    RefPtr<ChildFileStream> stream(new ChildFileStream(&owner_, identifier, cache_.get(), seeker, writable));
    owner_.open[identifier] = stream.Get();
    return stream;
  }

  TempDir dir_;
  std::unique_ptr<FilePageCache> cache_;
  RefPtr<PageAllocator> allocator_{new PageAllocator};
  RefPtr<ChildFileSeeker> seeker_{new ChildFileSeeker};
  MapOwner owner_;
};

TEST_F(ChildFileStreamTest, LeavesTheOwnersMapWhenTheLastReferenceGoes) {
  RefPtr<ChildFileStream> stream = Open(7);
  EXPECT_EQ(stream->GetIdentifier(), 7u);
  RefPtr<ChildFileStream> second = stream;
  stream.Reset();
  EXPECT_EQ(owner_.open.count(7), 1u);
  second.Reset();
  EXPECT_EQ(owner_.open.count(7), 0u);
  EXPECT_EQ(owner_.calls, 1);
}

TEST_F(ChildFileStreamTest, DyingWithoutAnEntryLeavesTheMapAlone) {
  RefPtr<ChildFileStream> stream = Open(7);
  owner_.open.erase(7);
  owner_.open[8] = nullptr;
  stream.Reset();
  EXPECT_EQ(owner_.open.size(), 1u);
  EXPECT_EQ(owner_.open.count(8), 1u);
}

TEST_F(ChildFileStreamTest, ADetachedStreamMovesNothingAndForgetsItsOwner) {
  RefPtr<ChildFileStream> stream = Open(7);
  std::uint8_t bytes[4] = {1, 2, 3, 4};
  ASSERT_EQ(stream->Write(bytes, 4), 4u);
  EXPECT_EQ(cache_->GetPinCount(seeker_->pageIds[0]), 1);
  stream->Detach();
  EXPECT_EQ(cache_->GetPinCount(seeker_->pageIds[0]), 0);
  cache_.reset();
  EXPECT_EQ(stream->Write(bytes, 4), 0u);
  EXPECT_EQ(stream->Read(bytes, 4), 0u);
  EXPECT_FALSE(stream->RemoveRange(0, 1));
  EXPECT_TRUE(stream->Seek(0, 100));
  EXPECT_EQ(stream->GetSize(), 8192u);
  stream.Reset();
  EXPECT_EQ(owner_.calls, 0);
}

TEST_F(ChildFileStreamTest, AStreamOpenedForReadingOnlyReadsItsBytesAndWritesNone) {
  const std::uint8_t bytes[4] = {1, 2, 3, 4};
  ASSERT_EQ(Open(7)->Write(bytes, 4), 4u);
  RefPtr<ChildFileStream> reader = Open(7, false);
  EXPECT_FALSE(reader->IsWritable());
  const std::uint8_t other[4] = {9, 9, 9, 9};
  EXPECT_EQ(reader->Write(other, 4), 0u);
  EXPECT_EQ(reader->GetPosition(), 0u);
  std::uint8_t back[4] = {};
  EXPECT_EQ(reader->Read(back, 4), 4u);
  EXPECT_EQ(back[0], 1);
  EXPECT_EQ(back[3], 4);
}

}  // namespace
}  // namespace Tovrel
