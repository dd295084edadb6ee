#include "platform/FileFaults.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "platform/PlatformFile.h"
#include "support/TempDir.h"

namespace Tovrel {
namespace {

class FileFaultsTest : public ::testing::Test {
 protected:
  void SetUp() override { path_ = dir_.File("f.bin"); }
  void TearDown() override { FileFaults::Reset(); }
  Testing::TempDir dir_;
  std::wstring path_;
};

TEST_F(FileFaultsTest, TheNthCallOfAKindFailsOnceWithTheChosenErrno) {
  FileHandle* file = PlatformFile::Open(path_.c_str(), "w+b");
  ASSERT_NE(file, nullptr);
  FileFaults::FailNth(FileCall::kSeek, 2, EROFS);
  EXPECT_EQ(PlatformFile::Seek(file, 0, SEEK_SET), 0);
  errno = 0;
  EXPECT_NE(PlatformFile::Seek(file, 0, SEEK_SET), 0);
  EXPECT_EQ(errno, EROFS);
  EXPECT_EQ(PlatformFile::Seek(file, 0, SEEK_SET), 0);
  EXPECT_EQ(FileFaults::Calls(FileCall::kSeek), 3u);
  PlatformFile::Close(file);
}

TEST_F(FileFaultsTest, APauseRunsOnceJustBeforeTheNthCallOfItsKind) {
  FileHandle* file = PlatformFile::Open(path_.c_str(), "w+b");
  ASSERT_NE(file, nullptr);
  const char byte = 7;
  std::uint64_t writesWhenPaused = 0;
  int pauses = 0;
  FileFaults::PauseAtNth(FileCall::kWrite, 2, [&] {
    ++pauses;
    writesWhenPaused = FileFaults::Calls(FileCall::kWrite);
  });
  EXPECT_EQ(PlatformFile::Write(&byte, 1, 1, file), 1u);
  EXPECT_EQ(pauses, 0);
  EXPECT_EQ(PlatformFile::Seek(file, 0, SEEK_SET), 0);  // other kinds do not count toward it
  EXPECT_EQ(pauses, 0);
  EXPECT_EQ(PlatformFile::Write(&byte, 1, 1, file), 1u);  // the pause does not fail the call
  EXPECT_EQ(pauses, 1);
  EXPECT_EQ(writesWhenPaused, 2u);
  EXPECT_EQ(PlatformFile::Write(&byte, 1, 1, file), 1u);
  EXPECT_EQ(pauses, 1);
  PlatformFile::Close(file);
}

TEST_F(FileFaultsTest, AStickyFaultFailsEveryLaterCallOfItsKind) {
  FileHandle* file = PlatformFile::Open(path_.c_str(), "w+b");
  ASSERT_NE(file, nullptr);
  FileFaults::FailNth(FileCall::kWrite, 1, ENOSPC, true);
  const char byte = 1;
  for (int i = 0; i < 3; ++i) {
    errno = 0;
    EXPECT_EQ(PlatformFile::Write(&byte, 1, 1, file), 0u);
    EXPECT_EQ(errno, ENOSPC);
  }
  EXPECT_EQ(PlatformFile::Seek(file, 0, SEEK_SET), 0);  // other kinds still work
  PlatformFile::Close(file);
}

TEST_F(FileFaultsTest, AnyKindCountsEveryCall) {
  FileFaults::StartCounting();
  FileHandle* file = PlatformFile::Open(path_.c_str(), "w+b");
  ASSERT_NE(file, nullptr);
  PlatformFile::Seek(file, 0, SEEK_END);
  PlatformFile::Tell(file);
  FileFaults::FailNth(FileCall::kAny, 1, EIO);
  errno = 0;
  EXPECT_EQ(PlatformFile::Flush(file), EOF);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(FileFaults::Calls(FileCall::kAny), 4u);
  EXPECT_EQ(PlatformFile::Close(file), 0);
}

TEST_F(FileFaultsTest, AFailedCloseStillClosesTheFile) {
  FileHandle* file = PlatformFile::Open(path_.c_str(), "w+b");
  ASSERT_NE(file, nullptr);
  FileFaults::FailNth(FileCall::kClose, 1, EIO);
  EXPECT_EQ(PlatformFile::Close(file), EOF);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(PlatformFile::Remove(path_.c_str()), 0);
}

TEST_F(FileFaultsTest, NothingIsCountedUntilAsked) {
  FileHandle* file = PlatformFile::Open(path_.c_str(), "w+b");
  ASSERT_NE(file, nullptr);
  PlatformFile::Close(file);
  EXPECT_EQ(FileFaults::Calls(FileCall::kAny), 0u);
}

TEST_F(FileFaultsTest, AFreeSpaceFigureReplacesTheVolumesUntilReset) {
  FileFaults::SetAvailableBytes(12345);
  EXPECT_EQ(PlatformFile::AvailableBytes(dir_.Path().wstring().c_str()), 12345u);
  FileFaults::Reset();
  EXPECT_NE(PlatformFile::AvailableBytes(dir_.Path().wstring().c_str()), 12345u);
}

TEST_F(FileFaultsTest, TheKindOfTheFailedCallIsKept) {
  EXPECT_EQ(FileFaults::LastFailed(), FileCall::kAny);
  FileHandle* file = PlatformFile::Open(path_.c_str(), "w+b");
  ASSERT_NE(file, nullptr);
  FileFaults::FailNth(FileCall::kAny, 2, EIO);
  EXPECT_EQ(PlatformFile::Seek(file, 0, SEEK_SET), 0);
  EXPECT_NE(PlatformFile::Sync(file), 0);
  EXPECT_EQ(FileFaults::LastFailed(), FileCall::kSync);
  FileFaults::FailNth(FileCall::kTruncate, 1, EFBIG);
  errno = 0;
  EXPECT_NE(PlatformFile::Truncate(file, 10), 0);
  EXPECT_EQ(errno, EFBIG);
  FileFaults::FailNth(FileCall::kRemove, 1, EACCES);
  PlatformFile::Close(file);
  EXPECT_NE(PlatformFile::Remove(path_.c_str()), 0);
  EXPECT_EQ(FileFaults::LastFailed(), FileCall::kRemove);
  EXPECT_TRUE(PlatformFile::Exists(path_.c_str()));
}

}  // namespace
}  // namespace Tovrel
