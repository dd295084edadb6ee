#include "platform/NativeFileSystem.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/support/AllocationFaults.h"
#include "tests/support/OpenHandles.h"
#include "tests/support/TempDir.h"

namespace Tovrel {
namespace {

namespace fs = std::filesystem;
using Testing::TempDir;

std::wstring Canonical(const fs::path& path) {
  return NativeFileSystem::Instance().CanonicalPath(path.wstring().c_str());
}

TEST(NativeFileSystemTest, ACanonicalPathIsAbsoluteWithoutDotsOrLinks) {
  TempDir dir;
  const fs::path folder = fs::canonical(dir.Path());
  fs::create_directories(folder / "a" / "b");
  TempDir::WriteAll((folder / "a" / "b" / "f.dat").wstring(), {1, 2, 3});
  const std::wstring expected = (folder / "a" / "b" / "f.dat").wstring();
  EXPECT_EQ(Canonical(folder / "a" / "b" / "f.dat"), expected);  // already canonical: unchanged
  EXPECT_EQ(Canonical(folder / "a" / "." / "b" / ".." / "b" / "f.dat"), expected);
  const fs::path working = fs::current_path();
  fs::current_path(folder / "a");
  EXPECT_EQ(Canonical(fs::path("b") / "f.dat"), expected);
  fs::current_path(working);
  std::error_code error;
  fs::create_directory_symlink(folder / "a", folder / "link", error);
  if (!error) {
    EXPECT_EQ(Canonical(folder / "link" / "b" / "f.dat"), expected);
  }
}

// The path is resolved through a handle of the file or folder: no memory
// at any allocation on the way leaves that handle open (an open handle
// would keep the host's folder from being removed).
TEST(NativeFileSystemTest, NoMemoryWhileResolvingAPathLeavesNothingOpen) {
  TempDir dir;
  TempDir::WriteAll(dir.File("f.dat"), {1});
  const fs::path paths[] = {dir.Path() / "f.dat", dir.Path() / "missing.dat", dir.Path()};
  for (const fs::path& path : paths) {
    const std::wstring wide = path.wstring();
    const std::wstring expected = Canonical(path);
    ASSERT_FALSE(expected.empty());
    bool completed = false;
    for (std::uint64_t k = 1; !completed && k < 1000; ++k) {
      const std::size_t before = Testing::OpenHandles::Count();
      std::wstring resolved;
      Testing::AllocationFaults::FailNth(k);
      try {
        resolved = NativeFileSystem::Instance().CanonicalPath(wide.c_str());
        completed = !Testing::AllocationFaults::Fired();
      } catch (const std::bad_alloc&) {
      }
      Testing::AllocationFaults::Stop();
      EXPECT_EQ(Testing::OpenHandles::Count(), before) << path << ", allocation " << k;
      if (completed) {
        EXPECT_EQ(resolved, expected) << path;
      }
    }
    EXPECT_TRUE(completed) << path;
  }
}

// The count the test above relies on sees a file opened and closed.
TEST(NativeFileSystemTest, AnOpenFileIsCountedAmongTheProcesssHandles) {
  TempDir dir;
  const std::size_t before = Testing::OpenHandles::Count();
  std::FILE* file = std::fopen((dir.Path() / "f.dat").string().c_str(), "wb");
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(Testing::OpenHandles::Count(), before + 1);
  std::fclose(file);
  EXPECT_EQ(Testing::OpenHandles::Count(), before);
}

TEST(NativeFileSystemTest, AMissingFileResolvesThroughItsFolder) {
  TempDir dir;
  const fs::path folder = fs::canonical(dir.Path());
  fs::create_directories(folder / "a");
  EXPECT_EQ(Canonical(folder / "a" / ".." / "a" / "new.dat"), (folder / "a" / "new.dat").wstring());
  // Without its folder nothing resolves: the path is kept as given.
  const fs::path nowhere = folder / "missing" / "x.dat";
  EXPECT_EQ(Canonical(nowhere), nowhere.wstring());
}

}  // namespace
}  // namespace Tovrel
