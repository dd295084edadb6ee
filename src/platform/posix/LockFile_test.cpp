#include "platform/posix/LockFile.h"

#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <random>
#include <string>

namespace Tovrel {
namespace {

std::string UniqueName() { return "tovrel-lockfile-test-" + std::to_string(std::random_device{}()); }

bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

TEST(LockFileTest, AFileStaysAfterItsLastUserCloses) {
  const std::string name = UniqueName();
  std::string path;
  {
    LockFile first(name, ".lock");
    ASSERT_TRUE(first.Open());
    ASSERT_TRUE(first.Flock(LOCK_EX));
    path = first.Path();
    EXPECT_TRUE(Exists(path));
  }
  EXPECT_TRUE(Exists(path));
  unlink(path.c_str());
}

TEST(LockFileTest, EveryOpenerOfANameLocksTheSameFileWhoeverClosedBefore) {
  const std::string name = UniqueName();
  LockFile holder(name, ".lock");
  ASSERT_TRUE(holder.Open());
  {
    // An earlier user of the name comes and goes without a lock held: the
    // file it leaves is the one everybody still locks.
    LockFile passing(name, ".lock");
    ASSERT_TRUE(passing.Open());
  }
  ASSERT_TRUE(holder.Flock(LOCK_EX | LOCK_NB));
  LockFile later(name, ".lock");
  ASSERT_TRUE(later.Open());
  EXPECT_FALSE(later.Flock(LOCK_EX | LOCK_NB));
  EXPECT_EQ(errno, EWOULDBLOCK);
  ASSERT_TRUE(holder.Flock(LOCK_UN));
  EXPECT_TRUE(later.Flock(LOCK_EX | LOCK_NB));
  const std::string path = holder.Path();
  holder.Close();
  later.Close();
  EXPECT_TRUE(Exists(path));
  unlink(path.c_str());
}

}  // namespace
}  // namespace Tovrel
