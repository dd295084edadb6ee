#include "platform/NativeFileSystem.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

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
