// Caches and the other users of one machine: a user who cannot write a
// cache folder cannot stop the caches of those who can by making the names
// of their shared objects first, and a second user of a folder that both
// may write reads the first user's cache and never writes it.
//
// These tests make their own accounts (useradd) and run their children as
// those accounts, so they need root, as CI runs them.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "effectcache/EffectCacheImpl.h"
#include "support/ChildLauncher.h"
#include "support/ChildProcess.h"
#include "support/EffectTesting.h"
#include "support/TempDir.h"
#include "support/UnprivilegedUser.h"
#include "tovrel/EffectCacheSystem.h"

namespace Tovrel {
namespace {

namespace fs = std::filesystem;
using Testing::ChildLauncher;
using Testing::EffectTesting;
using Testing::TempDir;
using Testing::UnprivilegedUser;

constexpr const char* kGroup = "tovreltest";

std::wstring Numbered(const std::string& stem, int i) { return ChildLauncher::Wide(stem + std::to_string(i)); }

std::vector<unsigned char> BytesOf(const std::wstring& name) {
  return EffectTesting::BytesNamedBy(ChildLauncher::Narrow(name));
}

bool Become(const char* userId, const char* groupId) {
  std::string why;
  if (UnprivilegedUser::FromWords(userId, groupId).Become(&why)) return true;
  std::fprintf(stderr, "%s\n", why.c_str());
  return false;
}

bool Touch(const fs::path& file) { return static_cast<bool>(std::ofstream(file)); }

// What a squatter makes for a cache file of the user with that id: the
// folders where the user's objects could live, and the objects' names where
// they lived before, in both.
std::vector<fs::path> SquattedNames(const std::string& userId, const std::wstring& file) {
  const std::string mutex = ChildLauncher::Narrow(CacheFileNames::FileMutexName(file));
  const std::string stamp = ChildLauncher::Narrow(CacheFileNames::TimeStampName(file));
  std::vector<fs::path> names;
  for (const char* parent : {"/dev/shm", "/tmp"}) {
    names.push_back(fs::path(parent) / ("tovrel-" + userId));
    for (const std::string& name : {mutex + ".mutex", stamp + ".holders", stamp + ".block", stamp,
                                    stamp + "_mutex.mutex"}) {
      names.push_back(fs::path(parent) / name);
    }
  }
  return names;
}

// A user who may not write the cache folder makes, first, every name it can
// derive for the cache's shared objects: the folders where other users'
// objects could live, and the objects' own names where they lived before.
TOVREL_CHILD_ROLE(object_squatter) {
  if (argc != 4 || !Become(argv[0], argv[1])) return 2;
  int made = 0;
  for (const fs::path& name : SquattedNames(argv[2], ChildLauncher::Wide(argv[3]))) {
    std::error_code error;
    if (name.filename().string().compare(0, 7, "tovrel-") == 0) {
      if (!fs::create_directory(name, error)) return 3;
      fs::permissions(name, fs::perms::all, error);
      ++made;
    } else if (Touch(name)) {
      ++made;
    }
  }
  return made > 2 ? 0 : 4;
}

// A user's host: "write" caches `count` effects named stem + i, saving each,
// then finds them all in a new object; "read" must find them, must find the
// cache read only with the owner's note, and must not keep what it caches.
TOVREL_CHILD_ROLE(user_host) {
  if (argc != 6 || !Become(argv[0], argv[1])) return 2;
  const std::wstring folder = ChildLauncher::Wide(argv[2]);
  const std::string mode = argv[3];
  const std::string stem = argv[4];
  const int count = std::atoi(argv[5]);
  if (mode == "write") {
    RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(WStr(folder.c_str())));
    for (int i = 0; i < count; ++i) {
      const auto bytes = BytesOf(Numbered(stem, i));
      if (!cache->CacheCompiledEffect(WStr(Numbered(stem, i).c_str()), bytes.data(), bytes.size(), false)) return 3;
      cache->ForceSaveToFile();
      if (!cache->IsEnabled()) return 4;
    }
  }
  EffectCacheImpl reader(WStr(folder.c_str()), EffectCacheImpl::kHostCompressionLevel,
                         EffectCacheImpl::kCacheBytesLimit);
  if (!reader.IsEnabled()) return 5;
  for (int i = 0; i < count; ++i) {
    Tab<unsigned char> data;
    if (!reader.SearchCachedEffects(WStr(Numbered(stem, i).c_str()), data)) return 6;
    if (EffectTesting::ToVector(data) != BytesOf(Numbered(stem, i))) return 7;
  }
  if (mode == "read") {
    const std::wstring file = reader.GetCacheFileFullPath().data();
    if (!reader.IsReadOnly() || CacheFileNames::OwnerNote(file).empty()) return 8;
    const auto bytes = BytesOf(L"theirs");
    reader.CacheCompiledEffect(WStr(L"theirs"), bytes.data(), bytes.size(), false);
    reader.ForceSaveToFile();
  }
  return 0;
}

class EffectCacheUsersTest : public ::testing::Test {
 protected:
  // An account of the test's own, with its home in the test's folder.
  bool MakeUser(const std::string& name, UnprivilegedUser* user) {
    std::string why;
    if (!UnprivilegedUser::Make(name, kGroup, dir_.Path() / ("home-" + name), user, &why)) {
      message_ = why;
      return false;
    }
    // Objects a run before this one left for the account are not the test's.
    std::error_code error;
    for (const char* parent : {"/dev/shm", "/tmp"}) {
      fs::remove_all(fs::path(parent) / ("tovrel-" + std::to_string(user->userId)), error);
    }
    return true;
  }

  int Run(const std::string& role, const UnprivilegedUser& user, std::vector<std::string> arguments) {
    std::vector<std::string> words = user.ToWords();
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::unique_ptr<PlatformProcess> child = ChildLauncher::Start(role, words);
    if (!child) return -2;
    return ChildLauncher::Finish(*child);
  }

  TempDir dir_;
  std::string message_;
};

TEST_F(EffectCacheUsersTest, NoNameAnotherUserMakesFirstStopsACache) {
  UnprivilegedUser victim, squatter;
  std::string why;
  if (!MakeUser("tovrelowner", &victim) || !UnprivilegedUser::Find(&squatter, &why)) {
    GTEST_SKIP() << "needs root to make accounts: " << message_ << why;
  }
  const fs::path folder = dir_.Path() / "cache";
  fs::create_directories(folder);
  fs::permissions(dir_.Path(), fs::perms::owner_all | fs::perms::others_exec | fs::perms::group_exec);
  ASSERT_TRUE(victim.Own(folder, &why)) << why;
  const std::wstring file = CacheFileNames::CacheFilePathFor(WStr(folder.wstring().c_str())).data();
  ASSERT_EQ(Run("object_squatter", squatter, {std::to_string(victim.userId), ChildLauncher::Narrow(file)}), 0);
  EXPECT_EQ(Run("user_host", victim, {folder.string(), "write", "mine/", "5"}), 0);
  // The shared folder was taken: the owner's objects went to its home.
  EXPECT_TRUE(fs::is_directory(dir_.Path() / "home-tovrelowner" / ".tovrel-objects"));
  std::error_code error;
  for (const fs::path& name : SquattedNames(std::to_string(victim.userId), file)) fs::remove_all(name, error);
}

TEST_F(EffectCacheUsersTest, ASecondUserOfAGroupWritableFolderReadsAndNeverWrites) {
  UnprivilegedUser first, second;
  if (!MakeUser("tovrelfirst", &first) || !MakeUser("tovrelsecond", &second)) {
    GTEST_SKIP() << "needs root to make accounts: " << message_;
  }
  const fs::path folder = dir_.Path() / "shared";
  fs::create_directories(folder);
  fs::permissions(dir_.Path(), fs::perms::owner_all | fs::perms::others_exec | fs::perms::group_exec);
  std::string why;
  ASSERT_TRUE(first.Own(folder, &why)) << why;
  fs::permissions(folder, fs::perms::owner_all | fs::perms::group_all | fs::perms::set_gid);
  ASSERT_EQ(Run("user_host", first, {folder.string(), "write", "first/", "3"}), 0);
  const std::wstring file = CacheFileNames::CacheFilePathFor(WStr(folder.wstring().c_str())).data();
  // The file as a group that shares a folder keeps it: the second user may
  // write it, so only the owner rule keeps it from doing so.
  fs::permissions(file, fs::perms::group_write, fs::perm_options::add);
  const std::vector<std::uint8_t> saved = TempDir::ReadAll(file);
  EXPECT_EQ(Run("user_host", second, {folder.string(), "read", "first/", "3"}), 0);
  EXPECT_EQ(TempDir::ReadAll(file), saved);  // not a byte written by the second user
  // The first user goes on saving as before.
  EXPECT_EQ(Run("user_host", first, {folder.string(), "write", "again/", "2"}), 0);
  EXPECT_EQ(Run("user_host", first, {folder.string(), "read-own", "first/", "3"}), 0);
}

}  // namespace
}  // namespace Tovrel
