#include "ProgressReporter.h"

#include <gtest/gtest.h>

#include <sstream>

namespace Tovrel {
namespace Tool {
namespace {

using Clock = ProgressReporter::Clock;

// A clock that moves only when the test says.
struct FakeClock {
  Clock::time_point now{};
  ProgressReporter::Now Function() {
    return [this]() { return now; };
  }
  void Advance(int milliseconds) { now += std::chrono::milliseconds(milliseconds); }
};

TEST(ProgressReporterTest, StaysQuietDuringTheFirstSecond) {
  std::ostringstream out, err;
  Console console(out, err, true);
  FakeClock clock;
  ProgressReporter progress(console, "work", 10, clock.Function());
  clock.Advance(999);
  progress.Update(5);
  EXPECT_FALSE(progress.HasShown());
  EXPECT_EQ(err.str(), "");
}

TEST(ProgressReporterTest, ShowsDoneAndTotalAfterASecondAndWipesTheLineAtTheEnd) {
  std::ostringstream out, err;
  Console console(out, err, true);
  FakeClock clock;
  {
    ProgressReporter progress(console, "work", 10, clock.Function());
    clock.Advance(1000);
    progress.Update(5);
    EXPECT_TRUE(progress.HasShown());
    EXPECT_EQ(err.str(), "\rwork: 5/10 (50 %)");
  }
  EXPECT_EQ(err.str(), "\rwork: 5/10 (50 %)\r" + std::string(17, ' ') + "\r");
  EXPECT_EQ(out.str(), "");
}

TEST(ProgressReporterTest, AnUnknownTotalShowsACountAndOneLearntLaterShowsBoth) {
  std::ostringstream out, err;
  Console console(out, err, true);
  FakeClock clock;
  ProgressReporter progress(console, "effects", 0, clock.Function());
  clock.Advance(1000);
  progress.Update(1);
  EXPECT_EQ(err.str(), "\reffects: 1");
  clock.Advance(200);
  progress.Update(2, 8);
  EXPECT_EQ(err.str(), "\reffects: 1\reffects: 2/8 (25 %)");
}

TEST(ProgressReporterTest, RedrawsAtMostTenTimesASecondButAlwaysTheEnd) {
  std::ostringstream out, err;
  Console console(out, err, true);
  FakeClock clock;
  ProgressReporter progress(console, "w", 100, clock.Function());
  clock.Advance(1500);
  progress.Update(1);
  clock.Advance(50);
  progress.Update(2);
  EXPECT_EQ(err.str(), "\rw: 1/100 (1 %)");
  progress.Update(100);
  EXPECT_EQ(err.str(), "\rw: 1/100 (1 %)\rw: 100/100 (100 %)");
}

TEST(ProgressReporterTest, LargeCountsHaveThousandsSeparators) {
  std::ostringstream out, err;
  Console console(out, err, true);
  FakeClock clock;
  ProgressReporter progress(console, "reading", 1234567, clock.Function());
  clock.Advance(1500);
  progress.Update(617284);
  EXPECT_EQ(err.str(), "\rreading: 617,284/1,234,567 (50 %)");
}

TEST(ProgressReporterTest, ShowsNothingWhenMessagesAreNoTerminal) {
  std::ostringstream out, err;
  Console console(out, err, false);
  FakeClock clock;
  ProgressReporter progress(console, "work", 10, clock.Function());
  clock.Advance(5000);
  progress.Update(5);
  progress.Finish();
  EXPECT_FALSE(progress.HasShown());
  EXPECT_EQ(err.str(), "");
}

}  // namespace
}  // namespace Tool
}  // namespace Tovrel
