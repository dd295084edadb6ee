#include "platform/PlatformFile.h"

#include <gtest/gtest.h>

#include <cerrno>

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

}  // namespace
}  // namespace Tovrel
