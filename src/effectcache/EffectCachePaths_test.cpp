// Every path that leads to one cache file (a symbolic link to its folder, a
// relative path, one through "..") meets the same named mutex and shared
// time stamp, so hosts that reach one cache by different paths keep every
// save of each other.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "effectcache/EffectCacheImpl.h"
#include "support/ChildLauncher.h"
#include "support/ChildProcess.h"
#include "support/EffectTesting.h"
#include "support/TempDir.h"
#include "tovrel/EffectCacheSystem.h"

namespace Tovrel {
namespace {

namespace fs = std::filesystem;
using Testing::ChildLauncher;
using Testing::EffectTesting;
using Testing::TempDir;

constexpr int kEffectsPerHost = 25;

std::wstring CacheFile(const fs::path& folder) {
  return CacheFileNames::CacheFilePathFor(WStr(folder.wstring().c_str())).data();
}

std::wstring Numbered(const std::string& stem, int i) { return ChildLauncher::Wide(stem + std::to_string(i)); }

// A host that caches its effects one at a time, saving each at once, as the
// tool's put does.
TOVREL_CHILD_ROLE(path_host) {
  if (argc != 2) return 2;
  RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(WStr(ChildLauncher::Wide(argv[0]).c_str())));
  for (int i = 0; i < kEffectsPerHost; ++i) {
    const std::wstring name = Numbered(argv[1], i);
    const auto bytes = EffectTesting::BytesNamedBy(ChildLauncher::Narrow(name));
    if (!cache->CacheCompiledEffect(WStr(name.c_str()), bytes.data(), bytes.size(), false)) return 3;
    cache->ForceSaveToFile();
    if (!cache->IsEnabled()) return 4;
  }
  return 0;
}

// The folders a test reaches one cache by: the folder itself, a symbolic
// link to it (when the system lets this process make one), a path relative
// to the working folder and one through "..".
class EffectCachePathsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    real_ = dir_.Path() / "cache";
    fs::create_directories(real_);
    fs::create_directories(dir_.Path() / "other");
    std::error_code error;
    fs::create_directory_symlink(real_, dir_.Path() / "link", error);
    linked_ = !error;
    // Relative paths start from the test's folder (children inherit it).
    working_ = fs::current_path();
    fs::current_path(dir_.Path());
  }

  void TearDown() override { fs::current_path(working_); }

  static fs::path Relative() { return fs::path("cache"); }
  fs::path ThroughParent() const { return dir_.Path() / "other" / ".." / "cache"; }

  TempDir dir_;
  fs::path real_;
  fs::path working_;
  bool linked_ = false;
};

TEST_F(EffectCachePathsTest, EveryPathToOneFileNamesTheSameSharedObjects) {
  const fs::path canonical = fs::canonical(real_);
  const std::wstring file = CacheFile(canonical);
  // A path that is already canonical keeps the names it always had.
  EXPECT_EQ(CacheFileNames::FileMutexName(file), CacheFileNames::SharedObjectBaseName(file) + L"_mutex");
  EXPECT_EQ(CacheFileNames::TimeStampName(file), CacheFileNames::SharedObjectBaseName(file) + L"_timestamp");
  std::vector<fs::path> others = {Relative(), ThroughParent()};
  if (linked_) others.push_back(dir_.Path() / "link");
  for (const fs::path& other : others) {
    SCOPED_TRACE(other.string());
    EXPECT_EQ(CacheFileNames::FileMutexName(CacheFile(other)), CacheFileNames::FileMutexName(file));
    EXPECT_EQ(CacheFileNames::TimeStampName(CacheFile(other)), CacheFileNames::TimeStampName(file));
  }
  // Before the file exists its folder decides; once it exists, the same.
  RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(WStr(real_.wstring().c_str())));
  ASSERT_TRUE(cache->IsEnabled());
  EXPECT_EQ(CacheFileNames::FileMutexName(CacheFile(ThroughParent())), CacheFileNames::FileMutexName(file));
  // Another folder is another cache.
  EXPECT_NE(CacheFileNames::FileMutexName(CacheFile(dir_.Path() / "other")), CacheFileNames::FileMutexName(file));
}

TEST_F(EffectCachePathsTest, AnotherLetterCaseNamesTheSameSharedObjectsWhereCaseIsIgnored) {
  const fs::path upper = dir_.Path() / "CACHE";
  std::error_code error;
  if (!fs::equivalent(upper, real_, error)) GTEST_SKIP() << "this file system tells letter cases apart";
  RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(WStr(real_.wstring().c_str())));
  ASSERT_TRUE(cache->IsEnabled());
  EXPECT_EQ(CacheFileNames::FileMutexName(CacheFile(upper)), CacheFileNames::FileMutexName(CacheFile(real_)));
  EXPECT_EQ(CacheFileNames::TimeStampName(CacheFile(upper)), CacheFileNames::TimeStampName(CacheFile(real_)));
}

// Two hosts save at the same time, one through the folder, one through
// another path to it: every one of their saves is kept.
void ExpectEverySaveKept(const fs::path& real, const fs::path& other) {
  std::vector<std::unique_ptr<PlatformProcess>> hosts;
  hosts.push_back(ChildLauncher::Start("path_host", {real.string(), "direct/"}));
  hosts.push_back(ChildLauncher::Start("path_host", {other.string(), "other/"}));
  for (auto& host : hosts) {
    ASSERT_NE(host, nullptr);
    EXPECT_EQ(ChildLauncher::Finish(*host), 0);
  }
  RefPtr<EffectCacheSystem> reader(new EffectCacheSystem(WStr(real.wstring().c_str())));
  int kept = 0;
  for (const std::string stem : {"direct/", "other/"}) {
    for (int i = 0; i < kEffectsPerHost; ++i) {
      const std::wstring name = Numbered(stem, i);
      Tab<unsigned char> data;
      if (!reader->SearchCachedEffects(WStr(name.c_str()), data)) continue;
      EXPECT_EQ(EffectTesting::ToVector(data), EffectTesting::BytesNamedBy(ChildLauncher::Narrow(name)));
      ++kept;
    }
  }
  EXPECT_EQ(kept, 2 * kEffectsPerHost);
}

TEST_F(EffectCachePathsTest, HostsThroughARelativePathKeepEverySave) { ExpectEverySaveKept(real_, Relative()); }

TEST_F(EffectCachePathsTest, HostsThroughAParentStepKeepEverySave) { ExpectEverySaveKept(real_, ThroughParent()); }

TEST_F(EffectCachePathsTest, HostsThroughASymbolicLinkKeepEverySave) {
  if (!linked_) GTEST_SKIP() << "this process may not make symbolic links";
  ExpectEverySaveKept(real_, dir_.Path() / "link");
}

}  // namespace
}  // namespace Tovrel
