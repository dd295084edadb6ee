#include "shared/SaveCounter.h"

#include <gtest/gtest.h>

#include "support/ChildLauncher.h"
#include "support/MutexProbe.h"
#include "support/TempDir.h"

namespace Tovrel {
namespace {

using Testing::ChildLauncher;

TEST(SaveCounterTest, BeginMakesItOddAndEndEvenAndEveryStepNew) {
  const std::wstring name = ChildLauncher::UniqueWideName("savecounter");
  SaveCounter counter;
  EXPECT_FALSE(counter.IsReady());
  EXPECT_EQ(counter.Load() % 2, 1u);  // no counter: nothing a reader may trust
  ASSERT_TRUE(counter.Initialize(name.c_str()));
  EXPECT_EQ(counter.Load(), 0u);
  EXPECT_EQ(counter.Begin(), 1u);
  EXPECT_EQ(counter.End(), 2u);
  EXPECT_EQ(counter.Begin(), 3u);
  // A holder that died left it odd: the next one moves it on, still odd.
  EXPECT_EQ(counter.Begin(), 5u);
  EXPECT_EQ(counter.End(), 6u);
  EXPECT_EQ(counter.Load(), 6u);
}

TEST(SaveCounterTest, TwoObjectsOfOneNameShareTheCounter) {
  const std::wstring name = ChildLauncher::UniqueWideName("savecounter");
  SaveCounter first;
  SaveCounter second;
  ASSERT_TRUE(first.Initialize(name.c_str()));
  ASSERT_TRUE(second.Initialize(name.c_str()));
  first.Begin();
  EXPECT_EQ(second.Load(), 1u);
  second.End();
  EXPECT_EQ(first.Load(), 2u);
}

TEST(SaveCounterTest, AHolderThatDiedWithTheBlocksMutexDoesNotKeepTheCounterFromOthers) {
  Testing::TempDir dir;
  const std::wstring name = ChildLauncher::UniqueWideName("savecounter_dead_holder");
  SaveCounter first;
  ASSERT_TRUE(first.Initialize(name.c_str()));
  first.Begin();
  ASSERT_TRUE(Testing::MutexProbe::KillAHolder(name + L"_mutex", dir.Path()));
  // Windows reports the mutex abandoned to the next Initialize, once.
  SaveCounter second;
  ASSERT_TRUE(second.Initialize(name.c_str()));
  EXPECT_EQ(second.Load(), 1u);
  second.End();
  EXPECT_EQ(first.Load(), 2u);
}

}  // namespace
}  // namespace Tovrel
