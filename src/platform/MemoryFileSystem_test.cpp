#include "platform/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <vector>

#include "platform/FileFaults.h"
#include "platform/PlatformFile.h"
#include "support/InstalledFileSystem.h"

namespace Tovrel {
namespace {

using Bytes = std::vector<std::uint8_t>;

class MemoryFileSystemTest : public ::testing::Test {
 protected:
  void TearDown() override { FileFaults::Reset(); }

  MemoryFileSystem& Fs() { return installed_.Memory(); }
  static void WriteAt(FileHandle* file, std::int64_t offset, const Bytes& bytes) {
    ASSERT_EQ(PlatformFile::Seek(file, offset, SEEK_SET), 0);
    ASSERT_EQ(PlatformFile::Write(bytes.data(), 1, bytes.size(), file), bytes.size());
  }

  Testing::InstalledFileSystem installed_;
};

TEST_F(MemoryFileSystemTest, ModesBehaveAsTheCRuntimesDo) {
  errno = 0;
  EXPECT_EQ(PlatformFile::Open(L"a", "r+b"), nullptr);
  EXPECT_EQ(errno, ENOENT);
  FileHandle* file = PlatformFile::Open(L"a", "w+b");
  ASSERT_NE(file, nullptr);
  WriteAt(file, 0, {1, 2, 3});
  WriteAt(file, 6, {9});  // past the end: the gap reads as zeros
  ASSERT_EQ(PlatformFile::Seek(file, 0, SEEK_END), 0);
  EXPECT_EQ(PlatformFile::Tell(file), 7);
  ASSERT_EQ(PlatformFile::Seek(file, 2, SEEK_SET), 0);
  std::uint8_t back[8] = {};
  EXPECT_EQ(PlatformFile::Read(back, 1, 8, file), 5u);
  EXPECT_EQ(Bytes(back, back + 5), (Bytes{3, 0, 0, 0, 9}));
  EXPECT_EQ(PlatformFile::Close(file), 0);

  file = PlatformFile::Open(L"a", "rb");
  ASSERT_NE(file, nullptr);
  errno = 0;
  EXPECT_EQ(PlatformFile::Write(back, 1, 1, file), 0u);  // opened for reading only
  EXPECT_EQ(errno, EBADF);
  PlatformFile::Close(file);

  file = PlatformFile::Open(L"a", "ab");
  WriteAt(file, 0, {7});  // appends whatever the position
  PlatformFile::Close(file);
  EXPECT_EQ(Fs().ReadAll(L"a"), (Bytes{1, 2, 3, 0, 0, 0, 9, 7}));

  file = PlatformFile::Open(L"a", "w+b");  // empties the file
  PlatformFile::Close(file);
  EXPECT_TRUE(Fs().ReadAll(L"a").empty());
  EXPECT_TRUE(PlatformFile::Exists(L"a"));
}

TEST_F(MemoryFileSystemTest, HoldsComparesWhatTheSystemHolds) {
  const Bytes bytes{1, 2, 3, 4};
  EXPECT_FALSE(Fs().Holds(L"f", bytes.data(), bytes.size()));
  EXPECT_FALSE(Fs().Holds(L"f", nullptr, 0));  // no file is not an empty file
  Fs().WriteAll(L"f", bytes);
  EXPECT_TRUE(Fs().Holds(L"f", bytes.data(), bytes.size()));
  FileHandle* file = PlatformFile::Open(L"f", "r+b");
  ASSERT_NE(file, nullptr);
  WriteAt(file, 2, Bytes{9});
  PlatformFile::Close(file);
  EXPECT_FALSE(Fs().Holds(L"f", bytes.data(), bytes.size()));
  const Bytes changed{1, 2, 9, 4};
  EXPECT_TRUE(Fs().Holds(L"f", changed.data(), changed.size()));
}

TEST_F(MemoryFileSystemTest, AWholeItemIsCountedOnlyWhenAllItsBytesMove) {
  Fs().WriteAll(L"f", Bytes(100, 5));
  FileHandle* file = PlatformFile::Open(L"f", "rb");
  std::uint8_t buffer[256];
  EXPECT_EQ(PlatformFile::Read(buffer, 256, 1, file), 0u);  // as fread of a short file
  EXPECT_EQ(PlatformFile::Tell(file), 100);
  PlatformFile::Close(file);
}

TEST_F(MemoryFileSystemTest, ReadAtReadsWhereAskedWithoutMovingThePositionAndFailsAsReadsDo) {
  Fs().WriteAll(L"f", Bytes{1, 2, 3, 4, 5, 6});
  FileHandle* file = PlatformFile::Open(L"f", "rb");
  ASSERT_EQ(PlatformFile::Seek(file, 1, SEEK_SET), 0);
  std::uint8_t back[4] = {};
  EXPECT_EQ(PlatformFile::ReadAt(file, back, 4, 4), 2);
  EXPECT_EQ(back[0], 5);
  EXPECT_EQ(back[1], 6);
  EXPECT_EQ(PlatformFile::Tell(file), 1);
  EXPECT_EQ(PlatformFile::ReadAt(file, back, 4, 10), 0);
  FileFaults::FailNth(FileCall::kRead, 1, EIO);
  errno = 0;
  EXPECT_EQ(PlatformFile::ReadAt(file, back, 4, 0), -1);
  EXPECT_EQ(errno, EIO);
  PlatformFile::Close(file);
  FileHandle* writeOnly = PlatformFile::Open(L"g", "wb");
  errno = 0;
  EXPECT_EQ(PlatformFile::ReadAt(writeOnly, back, 1, 0), -1);
  EXPECT_EQ(errno, EBADF);
  PlatformFile::Close(writeOnly);
}

TEST_F(MemoryFileSystemTest, ARemovedFileStaysReadableThroughItsOpenHandles) {
  Fs().WriteAll(L"f", Bytes{4, 5});
  FileHandle* file = PlatformFile::Open(L"f", "rb");
  EXPECT_EQ(PlatformFile::Remove(L"f"), 0);
  EXPECT_FALSE(PlatformFile::Exists(L"f"));
  std::uint8_t back[2] = {};
  EXPECT_EQ(PlatformFile::Read(back, 1, 2, file), 2u);
  EXPECT_EQ(back[1], 5);
  PlatformFile::Close(file);
  errno = 0;
  EXPECT_NE(PlatformFile::Remove(L"f"), 0);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(MemoryFileSystemTest, ARenamedFileReplacesTheOneAtItsNewNameAndKeepsItsOpenHandles) {
  Fs().WriteAll(L"old", Bytes{1, 2, 3});
  Fs().WriteAll(L"new", Bytes{9});
  FileHandle* file = PlatformFile::Open(L"old", "r+b");
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(PlatformFile::Rename(L"old", L"new"), 0);
  EXPECT_FALSE(PlatformFile::Exists(L"old"));
  WriteAt(file, 0, {7});
  EXPECT_EQ(PlatformFile::Sync(file), 0);
  PlatformFile::Close(file);
  EXPECT_EQ(Fs().ReadAll(L"new"), (Bytes{7, 2, 3}));
  errno = 0;
  EXPECT_NE(PlatformFile::Rename(L"old", L"other"), 0);
  EXPECT_EQ(errno, ENOENT);
  Fs().CutPower();
  EXPECT_NE(PlatformFile::Rename(L"new", L"other"), 0);
  Fs().RestorePower(1);
  EXPECT_EQ(Fs().ReadAll(L"new"), (Bytes{7, 2, 3}));  // a rename needs no sync
}

TEST_F(MemoryFileSystemTest, ALockIsHeldUntilItsHandleCloses) {
  bool busy = false;
  FileHandle* holder = PlatformFile::OpenLocked(L"j", "w+b", &busy);
  ASSERT_NE(holder, nullptr);
  EXPECT_FALSE(busy);
  WriteAt(holder, 0, {1, 2});
  EXPECT_EQ(PlatformFile::OpenLocked(L"j", "r+b", &busy), nullptr);
  EXPECT_TRUE(busy);
  EXPECT_EQ(PlatformFile::OpenLocked(L"j", "w+b", &busy), nullptr);  // and empties nothing
  EXPECT_EQ(Fs().ReadAll(L"j").size(), 2u);
  FileHandle* reader = PlatformFile::Open(L"j", "rb");  // plain opens are not locked out
  ASSERT_NE(reader, nullptr);
  PlatformFile::Close(reader);
  PlatformFile::Close(holder);
  FileHandle* next = PlatformFile::OpenLocked(L"j", "r+b", &busy);
  ASSERT_NE(next, nullptr);
  EXPECT_FALSE(busy);
  PlatformFile::Close(next);
}

TEST_F(MemoryFileSystemTest, TheEndOfAProcessKeepsItsWritesAndFreesItsLocks) {
  bool busy = false;
  FileHandle* holder = PlatformFile::OpenLocked(L"j", "w+b", &busy);
  WriteAt(holder, 0, {1, 2, 3});
  Fs().EndProcess();
  errno = 0;
  EXPECT_EQ(PlatformFile::Write("x", 1, 1, holder), 0u);  // the dead process's handle is gone
  EXPECT_EQ(errno, EIO);
  FileHandle* next = PlatformFile::OpenLocked(L"j", "r+b", &busy);
  ASSERT_NE(next, nullptr);
  PlatformFile::Close(next);
  delete holder;
  EXPECT_EQ(Fs().ReadAll(L"j"), (Bytes{1, 2, 3}));
}

TEST_F(MemoryFileSystemTest, APowerCutKeepsSyncedBytesAndSomeOfTheRest) {
  FileHandle* file = PlatformFile::Open(L"f", "w+b");
  WriteAt(file, 0, Bytes(1000, 1));
  ASSERT_EQ(PlatformFile::Sync(file), 0);
  for (int i = 0; i < 8; ++i) WriteAt(file, i * 1000, Bytes(1000, static_cast<std::uint8_t>(10 + i)));
  EXPECT_EQ(Fs().UnsyncedChangeCount(L"f"), 8u);
  Fs().CutPower();
  errno = 0;
  EXPECT_EQ(PlatformFile::Write("x", 1, 1, file), 0u);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(PlatformFile::Open(L"g", "w+b"), nullptr);  // nothing works while the power is off
  const std::uint64_t dropped = Fs().RestorePower(7);
  delete file;
  const Bytes after = Fs().ReadAll(L"f");
  EXPECT_GT(dropped, 0u);
  EXPECT_LT(dropped, 8u);
  ASSERT_GE(after.size(), 1000u);
  int torn = 0;
  int kept = 0;
  for (std::size_t block = 0; block * 1000 < after.size(); ++block) {
    const std::uint8_t first = after[block * 1000];
    std::size_t same = 0;
    while (block * 1000 + same < after.size() && same < 1000 && after[block * 1000 + same] == first) ++same;
    if (block == 0 && first == 1) continue;  // the synced write, or a later one dropped
    if (first == 10 + block) ++kept;
    if (same == MemoryFileSystem::kTornWriteBytes) ++torn;
  }
  EXPECT_EQ(torn, 1);
  EXPECT_GE(kept, 1);
  EXPECT_FALSE(Fs().IsPowerCut());
}

TEST_F(MemoryFileSystemTest, RestoringWithTheSameSeedGivesTheSameFile) {
  std::vector<Bytes> results;
  for (int run = 0; run < 2; ++run) {
    Fs().WriteAll(L"f", Bytes(4096, 0));
    FileHandle* file = PlatformFile::Open(L"f", "r+b");
    for (int i = 0; i < 6; ++i) WriteAt(file, i * 600, Bytes(600, static_cast<std::uint8_t>(i + 1)));
    ASSERT_EQ(PlatformFile::Truncate(file, 3000), 0);
    Fs().CutPower();
    Fs().RestorePower(42);
    delete file;
    results.push_back(Fs().ReadAll(L"f"));
  }
  EXPECT_EQ(results[0], results[1]);
}

TEST_F(MemoryFileSystemTest, ACapacityRefusesGrowthWithNoSpace) {
  Fs().SetCapacity(10000);
  FileHandle* file = PlatformFile::Open(L"f", "w+b");
  WriteAt(file, 0, Bytes(6000, 1));
  EXPECT_EQ(PlatformFile::AvailableBytes(L"."), 4000u);
  errno = 0;
  ASSERT_EQ(PlatformFile::Seek(file, 0, SEEK_END), 0);
  EXPECT_EQ(PlatformFile::Write(Bytes(5000, 2).data(), 5000, 1, file), 0u);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_NE(PlatformFile::Truncate(file, 20000), 0);
  EXPECT_EQ(errno, ENOSPC);
  WriteAt(file, 0, Bytes(6000, 3));  // overwriting needs no room
  PlatformFile::Close(file);
  EXPECT_EQ(Fs().ReadAll(L"f"), Bytes(6000, 3));
}

TEST_F(MemoryFileSystemTest, FaultsCanCutThePowerAtAChosenCall) {
  FileHandle* file = PlatformFile::Open(L"f", "w+b");
  WriteAt(file, 0, {1});
  ASSERT_EQ(PlatformFile::Sync(file), 0);
  FileFaults::CutPowerAtNth(FileCall::kWrite, 2);
  WriteAt(file, 0, {2});
  errno = 0;
  EXPECT_EQ(PlatformFile::Write("\x03", 1, 1, file), 0u);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(FileFaults::LastFailed(), FileCall::kWrite);
  EXPECT_TRUE(Fs().IsPowerCut());
  EXPECT_NE(PlatformFile::Sync(file), 0);
  Fs().RestorePower(1);
  delete file;
  const Bytes after = Fs().ReadAll(L"f");
  ASSERT_EQ(after.size(), 1u);
  EXPECT_TRUE(after[0] == 1 || after[0] == 2);
}

}  // namespace
}  // namespace Tovrel
