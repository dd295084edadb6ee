#include "platform/posix/ObjectFolder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "tests/support/TempDir.h"
#include "tests/support/UnprivilegedUser.h"

namespace Tovrel {
namespace {

namespace fs = std::filesystem;
using Testing::TempDir;

class ObjectFolderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    shared_ = dir_.Path() / "shared";
    home_ = dir_.Path() / "home";
    fs::create_directories(shared_);
    fs::create_directories(home_);
  }
  std::string Choose() const { return ObjectFolder::Choose(shared_.string(), home_.string(), geteuid()); }
  std::string Mine() const { return (shared_ / ("tovrel-" + std::to_string(geteuid()))).string(); }
  std::string HomeFolder() const { return (home_ / ".tovrel-objects").string(); }

  TempDir dir_;
  fs::path shared_;
  fs::path home_;
};

TEST_F(ObjectFolderTest, TheSharedCandidateIsMadePrivateToTheUser) {
  EXPECT_EQ(Choose(), Mine());
  struct stat status {};
  ASSERT_EQ(lstat(Mine().c_str(), &status), 0);
  EXPECT_TRUE(S_ISDIR(status.st_mode));
  EXPECT_EQ(status.st_mode & 0777, 0700u);
  EXPECT_EQ(status.st_uid, geteuid());
  EXPECT_EQ(Choose(), Mine());  // every process of the user stops at the same folder
}

TEST_F(ObjectFolderTest, AFolderOthersMayWriteOrEnterIsPassedOver) {
  ASSERT_EQ(mkdir(Mine().c_str(), 0700), 0);
  ASSERT_EQ(chmod(Mine().c_str(), 0777), 0);
  EXPECT_FALSE(ObjectFolder::IsPrivate(Mine(), geteuid()));
  EXPECT_EQ(Choose(), HomeFolder());
  ASSERT_EQ(chmod(Mine().c_str(), 0750), 0);
  EXPECT_EQ(Choose(), HomeFolder());
}

TEST_F(ObjectFolderTest, ALinkOrAFileAtTheNameIsPassedOver) {
  fs::create_directories(dir_.Path() / "elsewhere");
  fs::permissions(dir_.Path() / "elsewhere", fs::perms::owner_all, fs::perm_options::replace);
  fs::create_directory_symlink(dir_.Path() / "elsewhere", Mine());
  EXPECT_EQ(Choose(), HomeFolder());
  fs::remove(Mine());
  TempDir::WriteAll(fs::path(Mine()).wstring(), {1});
  EXPECT_EQ(Choose(), HomeFolder());
}

TEST_F(ObjectFolderTest, AFolderOfAnotherUserIsPassedOver) {
  Testing::UnprivilegedUser other;
  std::string why;
  if (!Testing::UnprivilegedUser::ThisProcessIsPrivileged() || !Testing::UnprivilegedUser::Find(&other, &why)) {
    GTEST_SKIP() << "only root can make a folder another user owns" << why;
  }
  ASSERT_EQ(mkdir(Mine().c_str(), 0700), 0);
  ASSERT_EQ(chown(Mine().c_str(), other.userId, other.groupId), 0);
  EXPECT_EQ(Choose(), HomeFolder());
}

TEST_F(ObjectFolderTest, WithoutAnyCandidateOfItsOwnNoFolderIsGiven) {
  ASSERT_EQ(mkdir(Mine().c_str(), 0777), 0);
  ASSERT_EQ(chmod(Mine().c_str(), 0777), 0);
  EXPECT_EQ(ObjectFolder::Choose(shared_.string(), std::string(), geteuid()), "");
  EXPECT_EQ(errno, EACCES);
  ASSERT_EQ(mkdir(HomeFolder().c_str(), 0700), 0);
  ASSERT_EQ(chmod(HomeFolder().c_str(), 0755), 0);
  EXPECT_EQ(Choose(), "");
}

TEST_F(ObjectFolderTest, ThisProcessHasAFolderOfItsOwn) {
  const std::string folder = ObjectFolder::Path();
  ASSERT_FALSE(folder.empty());
  EXPECT_TRUE(ObjectFolder::IsPrivate(folder, geteuid()));
}

}  // namespace
}  // namespace Tovrel
