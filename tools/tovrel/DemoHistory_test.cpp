#include "DemoHistory.h"

#include <gtest/gtest.h>

#include "support/TempDir.h"

namespace Tovrel {
namespace Tool {
namespace {

using Testing::TempDir;

TEST(DemoHistoryTest, ARunReadsBackAsItWasWritten) {
  const DemoHistory::Run run{3, 2000, 1990, 10, 1234};
  DemoHistory::Run read{};
  ASSERT_TRUE(DemoHistory::Parse(DemoHistory::Format(run), read));
  EXPECT_EQ(read.number, 3u);
  EXPECT_EQ(read.effects, 2000u);
  EXPECT_EQ(read.hits, 1990u);
  EXPECT_EQ(read.misses, 10u);
  EXPECT_EQ(read.wallMilliseconds, 1234u);
  EXPECT_DOUBLE_EQ(read.WallSeconds(), 1.234);
}

TEST(DemoHistoryTest, LinesOfAnotherShapeAreNotRuns) {
  DemoHistory::Run read{};
  EXPECT_FALSE(DemoHistory::Parse("", read));
  EXPECT_FALSE(DemoHistory::Parse("run 1 effects 2 hits 3 misses 4", read));
  EXPECT_FALSE(DemoHistory::Parse("walk 1 effects 2 hits 3 misses 4 wall_ms 5", read));
  EXPECT_FALSE(DemoHistory::Parse("run x effects 2 hits 3 misses 4 wall_ms 5", read));
}

TEST(DemoHistoryTest, RunsAreKeptInTheFolderAndNumberedOnward) {
  TempDir dir;
  const UserPath folder(dir.Path().u8string());
  {
    DemoHistory history(folder);
    EXPECT_TRUE(history.Runs().empty());
    EXPECT_EQ(history.NextNumber(), 1u);
    history.Record(DemoHistory::Run{1, 50, 0, 50, 900});
    history.Record(DemoHistory::Run{2, 50, 50, 0, 30});
  }
  const DemoHistory again(folder);
  ASSERT_EQ(again.Runs().size(), 2u);
  EXPECT_EQ(again.NextNumber(), 3u);
  EXPECT_TRUE(again.Runs()[0].IsCold());
  EXPECT_TRUE(again.Runs()[1].IsWarm());
}

TEST(DemoHistoryTest, TheLastColdRunIsOneOfAsManyEffects) {
  TempDir dir;
  DemoHistory history{UserPath(dir.Path().u8string())};
  history.Record(DemoHistory::Run{1, 50, 0, 50, 900});
  history.Record(DemoHistory::Run{2, 60, 0, 60, 700});
  history.Record(DemoHistory::Run{3, 50, 20, 30, 500});
  ASSERT_NE(history.LastColdRun(50), nullptr);
  EXPECT_EQ(history.LastColdRun(50)->number, 1u);
  EXPECT_EQ(history.LastColdRun(60)->number, 2u);
  EXPECT_EQ(history.LastColdRun(70), nullptr);
  EXPECT_FALSE(history.Runs()[2].IsCold());
  EXPECT_FALSE(history.Runs()[2].IsWarm());
}

}  // namespace
}  // namespace Tool
}  // namespace Tovrel
