#include <gtest/gtest.h>

#include <cstring>
#include <exception>

#include "pagefile/FileDataCorruptException.h"
#include "pagefile/FileIOException.h"
#include "pagefile/InvalidParameterException.h"
#include "pagefile/OutOfMemoryException.h"
#include "pagefile/PageFileIO.h"
#include "pagefile/Win32APICallFailedException.h"

namespace Tovrel {
namespace {

TEST(ExceptionsTest, NoOpenFileThrowsFileIOExceptionWithCodeZero) {
  std::uint8_t page[8192];
  try {
    PageFileIO::ReadPage(nullptr, 0, page, 0);
    FAIL() << "no exception";
  } catch (const FileIOException& e) {
    EXPECT_EQ(e.errorCode, 0);
  }
  try {
    PageFileIO::WritePage(nullptr, 8192, page, 0);
    FAIL() << "no exception";
  } catch (const FileIOException& e) {
    EXPECT_EQ(e.errorCode, 0);
  }
}

TEST(ExceptionsTest, CopiesKeepTheirErrorCodes) {
  const FileIOException io(28);
  const FileIOException ioCopy(io);
  EXPECT_EQ(ioCopy.errorCode, 28);
  Win32APICallFailedException win;
  win.errorCode = 183;
  const Win32APICallFailedException winCopy = win;
  EXPECT_EQ(winCopy.errorCode, 183u);
}

TEST(ExceptionsTest, EveryKindIsCaughtAsAStandardExceptionWithTheDefaultText) {
  const std::exception plain;
  auto check = [&](const std::exception& e) { EXPECT_STREQ(e.what(), plain.what()); };
  check(FileIOException());
  check(FileDataCorruptException());
  check(InvalidParameterException());
  check(OutOfMemoryException());
  check(Win32APICallFailedException());
  EXPECT_THROW(throw FileDataCorruptException(), std::exception);
}

TEST(ExceptionsTest, ANullStreamHasNoLength) {
  EXPECT_THROW(PageFileIO::GetFileLength(nullptr), InvalidParameterException);
}

}  // namespace
}  // namespace Tovrel
