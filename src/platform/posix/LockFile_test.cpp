#include "platform/posix/LockFile.h"

#include <gtest/gtest.h>
#include <sys/file.h>

#include <random>
#include <string>

namespace Tovrel {
namespace {

std::string UniqueName() { return "tovrel-lockfile-test-" + std::to_string(std::random_device{}()); }

TEST(LockFileTest, AnOpenFileIsLinkedUntilItsLastUserRemovesIt) {
  const std::string name = UniqueName();
  LockFile first(name, ".lock");
  LockFile second(name, ".lock");
  EXPECT_FALSE(first.IsLinked());  // not open yet
  ASSERT_TRUE(first.Open());
  ASSERT_TRUE(second.Open());
  EXPECT_TRUE(first.IsLinked());
  EXPECT_TRUE(second.IsLinked());
  // Nobody holds a lock: the first closes and removes the file, and the
  // second's open file is no longer the one at the path.
  first.CloseAndRemoveIfUnused();
  EXPECT_FALSE(second.IsLinked());
  // A lock taken on it guards nothing; a fresh open makes a linked file.
  EXPECT_TRUE(second.Flock(LOCK_EX | LOCK_NB));
  EXPECT_FALSE(second.IsLinked());
  LockFile third(name, ".lock");
  ASSERT_TRUE(third.Open());
  EXPECT_TRUE(third.IsLinked());
  EXPECT_FALSE(second.IsLinked());
  third.CloseAndRemoveIfUnused();
}

TEST(LockFileTest, AFileInUseIsNotRemoved) {
  const std::string name = UniqueName();
  LockFile holder(name, ".lock");
  LockFile other(name, ".lock");
  ASSERT_TRUE(holder.Open());
  ASSERT_TRUE(holder.Flock(LOCK_SH));
  ASSERT_TRUE(other.Open());
  other.CloseAndRemoveIfUnused();  // cannot take the exclusive lock: the file stays
  EXPECT_TRUE(holder.IsLinked());
  holder.Flock(LOCK_UN);
  holder.CloseAndRemoveIfUnused();
}

}  // namespace
}  // namespace Tovrel
