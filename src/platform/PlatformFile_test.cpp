#include "platform/PlatformFile.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <vector>

#include "platform/FileFaults.h"
#include "support/TempDir.h"

namespace Tovrel {
namespace {

TEST(PlatformFileTest, SeeksAndTellsBeyondFourGigabytes) {
  Testing::TempDir dir;
  const std::wstring path = dir.File("big.bin");
  FileHandle* file = PlatformFile::Open(path.c_str(), "w+b");
  ASSERT_NE(file, nullptr);
  const std::int64_t far = (std::int64_t{5} << 30) + 123;
  ASSERT_EQ(PlatformFile::Seek(file, far, SEEK_SET), 0);
  EXPECT_EQ(PlatformFile::Tell(file), far);
  EXPECT_EQ(PlatformFile::Close(file), 0);
}

TEST(PlatformFileTest, OpensWidePathsWithCharactersOutsideAscii) {
  Testing::TempDir dir;
  const std::wstring path = dir.Path().wstring() + L"/caf\u00e9 \u4e2d.bin";
  FileHandle* file = PlatformFile::Open(path.c_str(), "w+b");
  ASSERT_NE(file, nullptr);
  const char bytes[3] = {1, 2, 3};
  EXPECT_EQ(PlatformFile::Write(bytes, 1, 3, file), 3u);
  EXPECT_EQ(PlatformFile::Close(file), 0);
  file = PlatformFile::Open(path.c_str(), "rb");
  ASSERT_NE(file, nullptr);
  char back[4] = {};
  EXPECT_EQ(PlatformFile::Read(back, 1, 4, file), 3u);
  EXPECT_EQ(back[2], 3);
  PlatformFile::Close(file);
  EXPECT_EQ(PlatformFile::Remove(path.c_str()), 0);
}

TEST(PlatformFileTest, UpdateModeFailsForAMissingFileWithItsErrno) {
  Testing::TempDir dir;
  const std::wstring path = dir.File("missing.bin");
  errno = 0;
  EXPECT_EQ(PlatformFile::Open(path.c_str(), "r+b"), nullptr);
  EXPECT_EQ(errno, ENOENT);
}

TEST(PlatformFileTest, TruncateCutsAndGrowsAndSyncSucceeds) {
  Testing::TempDir dir;
  const std::wstring path = dir.File("t.bin");
  FileHandle* file = PlatformFile::Open(path.c_str(), "w+b");
  ASSERT_NE(file, nullptr);
  const char bytes[5] = {1, 2, 3, 4, 5};
  ASSERT_EQ(PlatformFile::Write(bytes, 1, 5, file), 5u);
  EXPECT_EQ(PlatformFile::Truncate(file, 2), 0);  // writes still buffered are cut too
  EXPECT_EQ(Testing::TempDir::SizeOf(path), 2u);
  EXPECT_EQ(PlatformFile::Truncate(file, 8192), 0);
  EXPECT_EQ(PlatformFile::Sync(file), 0);
  EXPECT_EQ(Testing::TempDir::SizeOf(path), 8192u);
  EXPECT_EQ(PlatformFile::Close(file), 0);
  const std::vector<std::uint8_t> back = Testing::TempDir::ReadAll(path);
  EXPECT_EQ(back[1], 2);
  EXPECT_EQ(back[2], 0);
}

TEST(PlatformFileTest, ExistsTellsFilesThatAreThere) {
  Testing::TempDir dir;
  const std::wstring path = dir.File("e.bin");
  EXPECT_FALSE(PlatformFile::Exists(path.c_str()));
  Testing::TempDir::WriteAll(path, {1});
  EXPECT_TRUE(PlatformFile::Exists(path.c_str()));
  EXPECT_EQ(PlatformFile::Remove(path.c_str()), 0);
  EXPECT_FALSE(PlatformFile::Exists(path.c_str()));
}

TEST(PlatformFileTest, RenameReplacesAFileAtTheNewName) {
  Testing::TempDir dir;
  const std::wstring from = dir.File("from.bin");
  const std::wstring to = dir.File("to.bin");
  Testing::TempDir::WriteAll(from, {1, 2});
  Testing::TempDir::WriteAll(to, {3});
  EXPECT_EQ(PlatformFile::Rename(from.c_str(), to.c_str()), 0);
  EXPECT_FALSE(PlatformFile::Exists(from.c_str()));
  EXPECT_EQ(Testing::TempDir::ReadAll(to), (std::vector<std::uint8_t>{1, 2}));
  errno = 0;
  EXPECT_NE(PlatformFile::Rename(from.c_str(), to.c_str()), 0);
  EXPECT_EQ(errno, ENOENT);
}

TEST(PlatformFileTest, ALockedFileCannotBeLockedAgainUntilItCloses) {
  Testing::TempDir dir;
  const std::wstring path = dir.File("l.bin");
  bool busy = true;
  FileHandle* holder = PlatformFile::OpenLocked(path.c_str(), "w+b", &busy);
  ASSERT_NE(holder, nullptr);
  EXPECT_FALSE(busy);
  const char bytes[3] = {7, 8, 9};
  ASSERT_EQ(PlatformFile::Write(bytes, 1, 3, holder), 3u);
  ASSERT_EQ(PlatformFile::Flush(holder), 0);
  EXPECT_EQ(PlatformFile::OpenLocked(path.c_str(), "r+b", &busy), nullptr);
  EXPECT_TRUE(busy);
  EXPECT_EQ(PlatformFile::OpenLocked(path.c_str(), "w+b", &busy), nullptr);
  EXPECT_TRUE(busy);
  EXPECT_EQ(Testing::TempDir::SizeOf(path), 3u);  // the refused "w+b" emptied nothing
  EXPECT_EQ(PlatformFile::Close(holder), 0);
  FileHandle* next = PlatformFile::OpenLocked(path.c_str(), "r+b", &busy);
  ASSERT_NE(next, nullptr);
  EXPECT_FALSE(busy);
  char back[3] = {};
  EXPECT_EQ(PlatformFile::Read(back, 1, 3, next), 3u);
  EXPECT_EQ(back[2], 9);
  PlatformFile::Close(next);
  errno = 0;
  EXPECT_EQ(PlatformFile::OpenLocked(dir.File("missing.bin").c_str(), "r+b", &busy), nullptr);
  EXPECT_FALSE(busy);
  EXPECT_EQ(errno, ENOENT);
}

TEST(PlatformFileTest, FailedCallsAreCountedButNotAMissingFileOrTheEndOfAFile) {
  Testing::TempDir dir;
  const std::wstring path = dir.File("counted.bin");
  const std::uint64_t start = PlatformFile::FailuresOnThisThread();
  EXPECT_EQ(PlatformFile::Open(path.c_str(), "rb"), nullptr);  // missing: an answer, not trouble
  FileHandle* file = PlatformFile::Open(path.c_str(), "w+b");
  ASSERT_NE(file, nullptr);
  const char bytes[3] = {1, 2, 3};
  ASSERT_EQ(PlatformFile::Write(bytes, 1, 3, file), 3u);
  ASSERT_EQ(PlatformFile::Seek(file, 0, SEEK_SET), 0);
  char back[8] = {};
  EXPECT_EQ(PlatformFile::Read(back, 1, 8, file), 3u);  // short at the end
  EXPECT_EQ(PlatformFile::FailuresOnThisThread(), start);
  FileFaults::FailNth(FileCall::kRead, 1, EIO);
  EXPECT_EQ(PlatformFile::Read(back, 1, 1, file), 0u);
  FileFaults::Reset();
  EXPECT_EQ(PlatformFile::FailuresOnThisThread(), start + 1);
  FileFaults::FailNth(FileCall::kOpen, 1, EMFILE);
  EXPECT_EQ(PlatformFile::Open(path.c_str(), "rb"), nullptr);
  FileFaults::Reset();
  EXPECT_EQ(PlatformFile::FailuresOnThisThread(), start + 2);
  EXPECT_EQ(PlatformFile::Close(file), 0);
}

}  // namespace
}  // namespace Tovrel
