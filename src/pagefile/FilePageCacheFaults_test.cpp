// Failure paths of the page cache: every file call it makes is failed in
// turn through the platform layer's fault injection.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <vector>

#include "pagefile/FileIOException.h"
#include "pagefile/FilePageCache.h"
#include "pagefile/PageRef.h"
#include "platform/FileFaults.h"
#include "platform/PlatformFile.h"
#include "support/TempDir.h"

namespace Tovrel {
namespace {

using Testing::TempDir;

struct CacheState {
  std::vector<std::uint64_t> order;
  std::vector<int> pins;
  bool open;
  bool operator==(const CacheState& o) const { return order == o.order && pins == o.pins && open == o.open; }
};

CacheState Snapshot(const FilePageCache& cache) {
  CacheState state{cache.GetRecencyOrder(), {}, cache.IsOpen()};
  for (std::uint64_t id : state.order) state.pins.push_back(cache.GetPinCount(id));
  return state;
}

std::vector<std::uint8_t> Pattern(std::size_t pages) {
  std::vector<std::uint8_t> bytes(pages * kPageSize);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(i * 13 + 1);
  return bytes;
}

class FilePageCacheFaultsTest : public ::testing::Test {
 protected:
  void TearDown() override { FileFaults::Reset(); }
  TempDir dir_;
};

TEST_F(FilePageCacheFaultsTest, OpenThatFailsInBothModesThrowsWithItsErrno) {
  const std::wstring path = dir_.File("a.bin");
  FileFaults::FailNth(FileCall::kOpen, 1, EACCES, true);
  try {
    FilePageCache cache(path.c_str(), 4);
    FAIL() << "opened";
  } catch (const FileIOException& e) {
    EXPECT_EQ(e.errorCode, EACCES);
  }
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::path(path)));
}

TEST_F(FilePageCacheFaultsTest, AFailedUpdateOpenFallsBackToCreatingTheFile) {
  const std::wstring path = dir_.File("b.bin");
  FileFaults::FailNth(FileCall::kOpen, 1, ENOENT);
  FilePageCache cache(path.c_str(), 4);
  EXPECT_TRUE(cache.IsOpen());
  EXPECT_EQ(FileFaults::Calls(FileCall::kOpen), 2u);
  EXPECT_TRUE(std::filesystem::exists(std::filesystem::path(path)));
}

TEST_F(FilePageCacheFaultsTest, AnExistingFileThatFailsToOpenIsNeverEmptied) {
  const std::wstring path = dir_.File("kept.bin");
  const std::vector<std::uint8_t> bytes = Pattern(3);
  TempDir::WriteAll(path, bytes);
  FileFaults::FailNth(FileCall::kOpen, 1, EMFILE);
  try {
    FilePageCache cache(path.c_str(), 4);
    FAIL() << "opened";
  } catch (const FileIOException& e) {
    EXPECT_EQ(e.errorCode, EMFILE);
  }
  EXPECT_EQ(FileFaults::Calls(FileCall::kOpen), 1u);
  EXPECT_EQ(TempDir::ReadAll(path), bytes);
}

TEST_F(FilePageCacheFaultsTest, AFailedMeasureOfTheFileLeavesTheCacheClosed) {
  const std::wstring path = dir_.File("c.bin");
  TempDir::WriteAll(path, Pattern(2));
  FilePageCache cache(path.c_str(), 4);
  for (FileCall call : {FileCall::kSeek, FileCall::kTell}) {
    FileFaults::FailNth(call, 1, EIO);
    try {
      cache.Open(path.c_str(), 4);
      FAIL() << "opened";
    } catch (const FileIOException& e) {
      EXPECT_EQ(e.errorCode, EIO);
    }
    EXPECT_FALSE(cache.IsOpen());
    FileFaults::Reset();
  }
  EXPECT_TRUE(cache.Open(path.c_str(), 4));
  EXPECT_EQ(cache.GetFileLength(), 2 * kPageSize);
}

TEST_F(FilePageCacheFaultsTest, AReadOnlyFileCannotBeOpened) {
  const std::wstring path = dir_.File("readonly.bin");
  const auto bytes = Pattern(1);
  TempDir::WriteAll(path, bytes);
  namespace fs = std::filesystem;
  fs::permissions(fs::path(path), fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
  FileHandle* probe = PlatformFile::Open(path.c_str(), "r+b");
  if (probe != nullptr) {
    // This process may write any file (an administrator); the system would
    // answer the cache's two opens the way it answers everyone else's.
    PlatformFile::Close(probe);
    FileFaults::FailNth(FileCall::kOpen, 1, EACCES, true);
  }
  try {
    FilePageCache cache(path.c_str(), 4);
    FAIL() << "opened a read-only file for update";
  } catch (const FileIOException& e) {
    EXPECT_EQ(e.errorCode, EACCES);
  }
  FileFaults::Reset();
  fs::permissions(fs::path(path), fs::perms::owner_all);
  EXPECT_EQ(TempDir::ReadAll(path), bytes);
}

// A run of cache operations over a three-page file: reads, writes that are
// evicted and written back, a write past the end that extends the file,
// and a close. `expected` is what the file must hold afterwards.
struct Scenario {
  std::vector<std::function<void(FilePageCache&)>> steps;
  std::vector<std::uint8_t> expected;
};

Scenario MakeScenario() {
  Scenario s;
  s.expected = Pattern(3);
  s.expected.resize(5 * kPageSize, 0);
  s.expected[kPageSize + 5] = 0xA1;
  s.expected[4 * kPageSize + 9] = 0xB2;
  auto read = [](std::uint64_t id) {
    return [id](FilePageCache& c) {
      PageRef page(&c);
      if (page.AcquireForRead(id) == nullptr) throw std::runtime_error("no page");
    };
  };
  auto write = [](std::uint64_t id, std::size_t at, std::uint8_t value) {
    return [=](FilePageCache& c) {
      PageRef page(&c);
      std::uint8_t* data = page.AcquireForWrite(id);
      if (data == nullptr) throw std::runtime_error("no page");
      data[at] = value;
    };
  };
  s.steps = {read(10), write(11, 5, 0xA1), read(12), write(14, 9, 0xB2), read(11), read(10),
             [](FilePageCache& c) { c.Close(); }};
  return s;
}

TEST_F(FilePageCacheFaultsTest, EveryFileCallFailingInTurnKeepsStateAndLosesNoData) {
  const Scenario scenario = MakeScenario();
  const std::wstring path = dir_.File("scenario.bin");

  TempDir::WriteAll(path, Pattern(3));
  std::uint64_t calls = 0;
  {
    FilePageCache cache(path.c_str(), 2);
    FileFaults::StartCounting();
    for (const auto& step : scenario.steps) step(cache);
    calls = FileFaults::Calls(FileCall::kAny);
    FileFaults::Reset();
  }
  ASSERT_EQ(TempDir::ReadAll(path), scenario.expected);
  ASSERT_GT(calls, 10u);

  for (std::uint64_t k = 1; k <= calls; ++k) {
    SCOPED_TRACE("failing call " + std::to_string(k));
    TempDir::WriteAll(path, Pattern(3));
    const int error = 1000 + static_cast<int>(k);
    int failures = 0;
    FileCall failed = FileCall::kAny;
    {
      FilePageCache cache(path.c_str(), 2);
      FileFaults::FailNth(FileCall::kAny, k, error);
      for (const auto& step : scenario.steps) {
        const CacheState before = Snapshot(cache);
        try {
          step(cache);
        } catch (const FileIOException& e) {
          ++failures;
          EXPECT_EQ(e.errorCode, error);
          cache.CheckInvariants();
          if (before.open && cache.IsOpen()) {
            EXPECT_TRUE(Snapshot(cache) == before);
          }
          step(cache);  // nothing armed any more: the same step now works
        }
      }
      failed = FileFaults::LastFailed();
      FileFaults::Reset();
    }
    if (failed == FileCall::kClose || failed == FileCall::kRemove) {
      // Closing and deleting the journal after a complete commit: the save
      // is done by then, so the failure is not reported, and a journal left
      // behind is inert (the next open deletes it).
      EXPECT_LE(failures, 1);
    } else {
      EXPECT_EQ(failures, 1);
    }
    EXPECT_EQ(TempDir::ReadAll(path), scenario.expected);
    FilePageCache reopened(path.c_str(), 2);
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::path(RollbackJournal::PathFor(path))));
  }
}

TEST_F(FilePageCacheFaultsTest, AFullDeviceRefusesGrowthButKeepsWrittenPages) {
  const std::wstring path = dir_.File("full.bin");
  TempDir::WriteAll(path, Pattern(2));
  FilePageCache cache(path.c_str(), 2);
  cache.GetPage(10, false)[0] = 0x11;
  cache.UnpinPage(10);
  FileFaults::FailNth(FileCall::kWrite, 1, ENOSPC, true);
  try {
    cache.GetPage(20, false);
    FAIL() << "grew the file";
  } catch (const FileIOException& e) {
    EXPECT_EQ(e.errorCode, ENOSPC);
  }
  EXPECT_EQ(cache.GetFileLength(), 2 * kPageSize);
  EXPECT_TRUE(cache.IsCached(10));
  EXPECT_THROW(cache.Close(), FileIOException);
  EXPECT_TRUE(cache.IsCached(10));
  EXPECT_TRUE(cache.IsOpen());
  FileFaults::Reset();
  cache.Close();
  auto expected = Pattern(2);
  expected[0] = 0x11;
  EXPECT_EQ(TempDir::ReadAll(path), expected);
}

}  // namespace
}  // namespace Tovrel
