#include "platform/PlatformProcess.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <fstream>
#include <string>
#include <thread>

#include "support/ChildLauncher.h"
#include "support/ChildProcess.h"
#include "support/TempDir.h"

namespace {

using Tovrel::PlatformProcess;
using Tovrel::Testing::ChildLauncher;
using Tovrel::Testing::TempDir;

TOVREL_CHILD_ROLE(exit_with) {
  return argc >= 1 ? std::atoi(argv[0]) : 99;
}

TOVREL_CHILD_ROLE(sleep_long) {
  (void)argc, (void)argv;
  std::this_thread::sleep_for(std::chrono::seconds(100));
  return 0;
}

// Writes its arguments to the file named by the first one, one a line.
TOVREL_CHILD_ROLE(echo_args) {
  if (argc < 1) return 99;
  std::ofstream out(argv[0], std::ios::binary);
  for (int i = 1; i < argc; ++i) out << argv[i] << '\n';
  return 0;
}

TEST(PlatformProcessTest, ReportsTheChildsExitCode) {
  auto child = ChildLauncher::Start("exit_with", {"7"});
  ASSERT_NE(child, nullptr);
  EXPECT_NE(child->Id(), 0u);
  EXPECT_EQ(ChildLauncher::Finish(*child), 7);
  int again = 0;
  ASSERT_TRUE(child->Wait(0, &again));
  EXPECT_EQ(again, 7);
}

TEST(PlatformProcessTest, WaitWithinABoundGivesUpOnARunningChild) {
  auto child = ChildLauncher::Start("sleep_long", {});
  ASSERT_NE(child, nullptr);
  int exitCode = 0;
  EXPECT_FALSE(child->Wait(50, &exitCode));
  EXPECT_TRUE(child->Kill());
  EXPECT_EQ(ChildLauncher::Finish(*child), PlatformProcess::kKilledExitCode);
  EXPECT_FALSE(child->Kill());
}

TEST(PlatformProcessTest, ArgumentsArriveUnchanged) {
  TempDir dir;
  const std::string file = (dir.Path() / "args.txt").string();
  const std::vector<std::string> arguments{"plain", "with space", "quote\"inside", "trailing\\",
                                           "back\\\\slash\"", ""};
  std::vector<std::string> words{file};
  words.insert(words.end(), arguments.begin(), arguments.end());
  auto child = ChildLauncher::Start("echo_args", words);
  ASSERT_NE(child, nullptr);
  ASSERT_EQ(ChildLauncher::Finish(*child), 0);
  std::ifstream in(file, std::ios::binary);
  std::string line;
  std::vector<std::string> received;
  while (std::getline(in, line)) received.push_back(line);
  EXPECT_EQ(received, arguments);
}

// Writes its first argument to standard output and its second to
// standard error.
TOVREL_CHILD_ROLE(print_both) {
  if (argc < 2) return 99;
  std::fputs(argv[0], stdout);
  std::fputs(argv[1], stderr);
  return 0;
}

std::string ReadText(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

TEST(PlatformProcessTest, RedirectedOutputAndErrorReachTheirFiles) {
  TempDir dir;
  const std::string out = (dir.Path() / "out.txt").string();
  const std::string err = (dir.Path() / "err.txt").string();
  auto child = ChildLauncher::Start("print_both", {"to-out", "to-err"}, out, err);
  ASSERT_NE(child, nullptr);
  ASSERT_EQ(ChildLauncher::Finish(*child), 0);
  EXPECT_EQ(ReadText(out), "to-out");
  EXPECT_EQ(ReadText(err), "to-err");
}

TEST(PlatformProcessTest, RedirectingOnlyOutputLeavesErrorShared) {
  TempDir dir;
  const std::string out = (dir.Path() / "out.txt").string();
  auto child = ChildLauncher::Start("print_both", {"only-out", ""}, out);
  ASSERT_NE(child, nullptr);
  ASSERT_EQ(ChildLauncher::Finish(*child), 0);
  EXPECT_EQ(ReadText(out), "only-out");
  EXPECT_FALSE(std::filesystem::exists(dir.Path() / "err.txt"));
}

TEST(PlatformProcessTest, StartOfAMissingProgramFails) {
  TempDir dir;
  PlatformProcess process;
  EXPECT_FALSE(process.Start((dir.Path() / "no-such-program").string(), {}));
  EXPECT_EQ(process.Id(), 0u);
  int exitCode = 0;
  EXPECT_FALSE(process.Wait(0, &exitCode));
}

TEST(PlatformProcessTest, CurrentExecutableNamesThisProgram) {
  const std::string self = PlatformProcess::CurrentExecutable();
  ASSERT_FALSE(self.empty());
  EXPECT_NE(self.find("platform_tests"), std::string::npos);
}

}  // namespace
