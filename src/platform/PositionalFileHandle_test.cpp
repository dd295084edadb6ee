#include "platform/PositionalFileHandle.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <algorithm>
#include <vector>

#include "platform/NativeFileSystem.h"
#include "tests/support/TempDir.h"

namespace Tovrel {
namespace {

using Testing::TempDir;

std::unique_ptr<FileHandle> OpenFile(const std::wstring& path, const char* mode) {
  return std::unique_ptr<FileHandle>(NativeFileSystem::Instance().Open(path.c_str(), mode));
}

std::vector<std::uint8_t> Bytes(const std::string& text) { return std::vector<std::uint8_t>(text.begin(), text.end()); }

TEST(PositionalFileHandleTest, PackageModesArePositionalAndOtherModesAreNot) {
  TempDir dir;
  const std::wstring path = dir.File("f.bin");
  auto created = OpenFile(path, "w+b");
  ASSERT_NE(created, nullptr);
  EXPECT_NE(dynamic_cast<PositionalFileHandle*>(created.get()), nullptr);
  created.reset();
  EXPECT_NE(dynamic_cast<PositionalFileHandle*>(OpenFile(path, "rb").get()), nullptr);
  EXPECT_NE(dynamic_cast<PositionalFileHandle*>(OpenFile(path, "r+b").get()), nullptr);
  EXPECT_EQ(dynamic_cast<PositionalFileHandle*>(OpenFile(path, "ab").get()), nullptr);
  bool busy = true;
  std::unique_ptr<FileHandle> locked(NativeFileSystem::Instance().OpenLocked(path.c_str(), "r+b", &busy));
  ASSERT_NE(locked, nullptr);
  EXPECT_FALSE(busy);
  EXPECT_NE(dynamic_cast<PositionalFileHandle*>(locked.get()), nullptr);
}

TEST(PositionalFileHandleTest, ReadsAndWritesWhereTheHandleStands) {
  TempDir dir;
  const std::wstring path = dir.File("f.bin");
  auto file = OpenFile(path, "w+b");
  ASSERT_NE(file, nullptr);
  const auto hello = Bytes("hello world");
  EXPECT_EQ(file->Write(hello.data(), 1, hello.size()), hello.size());
  EXPECT_EQ(file->Tell(), 11);
  ASSERT_EQ(file->Seek(6, SEEK_SET), 0);
  const auto there = Bytes("THERE");
  EXPECT_EQ(file->Write(there.data(), there.size(), 1), 1u);
  ASSERT_EQ(file->Seek(-11, SEEK_CUR), 0);
  std::vector<std::uint8_t> read(11);
  EXPECT_EQ(file->Read(read.data(), 1, read.size()), read.size());
  EXPECT_EQ(read, Bytes("hello THERE"));
  ASSERT_EQ(file->Seek(-5, SEEK_END), 0);
  EXPECT_EQ(file->Tell(), 6);
  // A write past the end leaves zeros in between, as the system does.
  ASSERT_EQ(file->Seek(20, SEEK_SET), 0);
  EXPECT_EQ(file->Write(hello.data(), 1, 1), 1u);
  EXPECT_EQ(file->Flush(), 0);
  EXPECT_EQ(file->Close(), 0);
  auto expected = Bytes("hello THERE");
  expected.resize(20, 0);
  expected.push_back('h');
  EXPECT_EQ(TempDir::ReadAll(path), expected);
}

TEST(PositionalFileHandleTest, AReadAtTheEndGivesTheWholeItemsThereAre) {
  TempDir dir;
  const std::wstring path = dir.File("f.bin");
  TempDir::WriteAll(path, Bytes("0123456789"));
  auto file = OpenFile(path, "rb");
  ASSERT_NE(file, nullptr);
  ASSERT_EQ(file->Seek(4, SEEK_SET), 0);
  std::vector<std::uint8_t> read(8, 0xEE);
  EXPECT_EQ(file->Read(read.data(), 4, 2), 1u);  // six bytes left: one whole item of four
  EXPECT_EQ(std::string(read.begin(), read.begin() + 6), "456789");
  EXPECT_EQ(file->Tell(), 10);
  EXPECT_EQ(file->Read(read.data(), 1, 1), 0u);
  ASSERT_EQ(file->Seek(100, SEEK_SET), 0);  // beyond the end: reads nothing
  EXPECT_EQ(file->Read(read.data(), 1, 1), 0u);
}

TEST(PositionalFileHandleTest, ModesKeepTheirMeaning) {
  TempDir dir;
  const std::wstring path = dir.File("f.bin");
  EXPECT_EQ(OpenFile(path, "r+b"), nullptr);  // a missing file is not created
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(OpenFile(path, "rb"), nullptr);
  TempDir::WriteAll(path, Bytes("kept"));
  auto update = OpenFile(path, "r+b");
  ASSERT_NE(update, nullptr);
  update.reset();
  EXPECT_EQ(TempDir::ReadAll(path), Bytes("kept"));  // opening for update never empties
  auto reading = OpenFile(path, "rb");
  ASSERT_NE(reading, nullptr);
  EXPECT_EQ(reading->Write("x", 1, 1), 0u);  // read-only
  reading.reset();
  EXPECT_EQ(TempDir::ReadAll(path), Bytes("kept"));
  EXPECT_NE(OpenFile(path, "w+b"), nullptr);
  EXPECT_EQ(TempDir::SizeOf(path), 0u);
}

TEST(PositionalFileHandleTest, TruncateCutsAndGrowsAndSyncSucceeds) {
  TempDir dir;
  const std::wstring path = dir.File("f.bin");
  TempDir::WriteAll(path, Bytes("0123456789"));
  auto file = OpenFile(path, "r+b");
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(file->Truncate(4), 0);
  EXPECT_EQ(file->Truncate(6), 0);
  EXPECT_EQ(file->Sync(), 0);
  ASSERT_EQ(file->Seek(0, SEEK_END), 0);
  EXPECT_EQ(file->Tell(), 6);
  file.reset();
  auto expected = Bytes("0123");
  expected.resize(6, 0);
  EXPECT_EQ(TempDir::ReadAll(path), expected);
}

TEST(PositionalFileHandleTest, BadPositionsAndAClosedHandleAreRefused) {
  TempDir dir;
  auto file = OpenFile(dir.File("f.bin"), "w+b");
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(file->Seek(-1, SEEK_SET), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(file->Seek(0, 12345), -1);
  EXPECT_EQ(file->Tell(), 0);
  EXPECT_EQ(file->Close(), 0);
  EXPECT_EQ(file->Close(), EOF);
  EXPECT_EQ(errno, EBADF);
  char byte = 0;
  EXPECT_EQ(file->Read(&byte, 1, 1), 0u);
  EXPECT_EQ(file->Write(&byte, 1, 1), 0u);
  EXPECT_EQ(file->Tell(), -1);
  EXPECT_EQ(file->Sync(), -1);
}

TEST(PositionalFileHandleTest, ReadAtNeitherUsesNorMovesThePositionAndServesManyThreads) {
  TempDir dir;
  const std::wstring path = dir.File("f.bin");
  auto file = OpenFile(path, "w+b");
  ASSERT_NE(file, nullptr);
  std::vector<std::uint8_t> bytes(100000);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(i * 7 + i / 256);
  ASSERT_EQ(file->Write(bytes.data(), 1, bytes.size()), bytes.size());
  ASSERT_EQ(file->Seek(10, SEEK_SET), 0);
  std::vector<std::uint8_t> got(5000);
  ASSERT_EQ(file->ReadAt(got.data(), got.size(), 90000), 5000);
  EXPECT_TRUE(std::equal(got.begin(), got.end(), bytes.begin() + 90000));
  EXPECT_EQ(file->Tell(), 10);
  EXPECT_EQ(file->ReadAt(got.data(), got.size(), 99000), 1000) << "fewer only at the end";
  EXPECT_EQ(file->ReadAt(got.data(), got.size(), 200000), 0);
  std::vector<int> wrong(4, 0);
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < wrong.size(); ++t) {
    threads.emplace_back([&, t] {
      std::vector<std::uint8_t> mine(4096);
      for (std::uint64_t offset = t * 1000; offset + mine.size() <= bytes.size(); offset += 3001) {
        if (file->ReadAt(mine.data(), mine.size(), offset) != 4096 ||
            !std::equal(mine.begin(), mine.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset))) {
          ++wrong[t];
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int w : wrong) EXPECT_EQ(w, 0);
}

TEST(PositionalFileHandleTest, StdioHandlesRefuseReadAt) {
  TempDir dir;
  const std::wstring path = dir.File("f.bin");
  auto file = OpenFile(path, "ab");
  ASSERT_NE(file, nullptr);
  std::uint8_t byte = 0;
  errno = 0;
  EXPECT_EQ(file->ReadAt(&byte, 1, 0), -1);
  EXPECT_EQ(errno, ENOTSUP);
}

}  // namespace
}  // namespace Tovrel
