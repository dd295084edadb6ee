#include "platform/SystemValues.h"

#include <gtest/gtest.h>

#include <ctime>
#include <fstream>
#include <string>

#include "support/ChildLauncher.h"
#include "support/ChildProcess.h"
#include "support/TempDir.h"

namespace {

using Tovrel::SystemValues;
using Tovrel::Testing::ChildLauncher;
using Tovrel::Testing::TempDir;

// Writes SystemValues::ProcessId() to the file named by its argument.
TOVREL_CHILD_ROLE(report_process_id) {
  if (argc < 1) return 99;
  std::ofstream(argv[0]) << SystemValues::ProcessId();
  return 0;
}

TEST(SystemValuesTest, CalendarSecondsFollowTheCRuntimeClock) {
  const std::int64_t before = static_cast<std::int64_t>(std::time(nullptr));
  const std::int64_t seconds = SystemValues::CalendarSeconds();
  const std::int64_t after = static_cast<std::int64_t>(std::time(nullptr));
  EXPECT_GE(seconds, before);
  EXPECT_LE(seconds, after);
}

TEST(SystemValuesTest, PerformanceCounterNeverGoesBack) {
  std::int64_t previous = SystemValues::PerformanceCounter();
  EXPECT_GT(previous, 0);
  for (int i = 0; i < 1000; ++i) {
    const std::int64_t now = SystemValues::PerformanceCounter();
    ASSERT_GE(now, previous);
    previous = now;
  }
}

TEST(SystemValuesTest, ProcessIdIsTheOneTheParentSees) {
  TempDir dir;
  const std::string file = (dir.Path() / "pid.txt").string();
  auto child = ChildLauncher::Start("report_process_id", {file});
  ASSERT_NE(child, nullptr);
  ASSERT_EQ(ChildLauncher::Finish(*child), 0);
  std::uint32_t reported = 0;
  std::ifstream(file) >> reported;
  EXPECT_EQ(reported, child->Id());
  EXPECT_NE(reported, SystemValues::ProcessId());
}

TEST(SystemValuesTest, RandomNumbersVary) {
  const std::uint32_t first = SystemValues::RandomNumber();
  bool varied = false;
  for (int i = 0; i < 100 && !varied; ++i) varied = SystemValues::RandomNumber() != first;
  EXPECT_TRUE(varied);
}

}  // namespace
