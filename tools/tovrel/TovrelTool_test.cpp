// The tool's own rules, whatever the command: output that cannot be
// written is a failure, and an empty argument never names a target.
#include "TovrelTool.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <streambuf>
#include <string>
#include <vector>

#include "Console.h"
#include "ExitStatus.h"
#include "support/TempDir.h"
#include "tool/ToolTesting.h"

namespace Tovrel {
namespace Tool {
namespace {

namespace fs = std::filesystem;
using Testing::TempDir;
using Testing::ToolTesting;

// A stream buffer that takes no byte, as a full disk behind standard
// output: every write fails.
class FullBuffer : public std::streambuf {
 protected:
  int_type overflow(int_type) override { return traits_type::eof(); }
  std::streamsize xsputn(const char*, std::streamsize) override { return 0; }
};

// Runs the words with an output that takes nothing.
ToolTesting::Result RunIntoAFullOutput(const std::vector<std::string>& words) {
  FullBuffer full;
  std::ostream out(&full);
  std::ostringstream err;
  Console console(out, err, false);
  const int status = TovrelTool::Run(words, console);
  return ToolTesting::Result{status, std::string(), err.str()};
}

TEST(TovrelToolTest, OutputThatCannotBeWrittenFailsTheCommand) {
  TempDir dir;
  ToolTesting::MakeCache(dir.Path() / "fx", 3, 1500);
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"--version"}, {"effects", "list", ToolTesting::Utf8(dir.Path() / "fx")},
        {"effects", "get", ToolTesting::Utf8(dir.Path() / "fx"), "fx/1"},
        {"package", "info", ToolTesting::Utf8(dir.Path() / "fx" / "norvaneFxoCache.dat")}}) {
    SCOPED_TRACE(words.back());
    const ToolTesting::Result result = RunIntoAFullOutput(words);
    EXPECT_EQ(result.status, ExitStatus::kFailed);
    EXPECT_TRUE(ToolTesting::Contains(result.err, "tovrel: standard output could not be written")) << result.err;
  }
  // A command that failed already keeps its own status.
  const ToolTesting::Result missing = RunIntoAFullOutput({"effects", "list", ToolTesting::Utf8(dir.Path() / "none")});
  EXPECT_EQ(missing.status, ExitStatus::kUnreadable);
}

#ifndef _WIN32
TEST(TovrelToolTest, TheProgramFailsIntoAFullDevice) {
  if (!fs::exists("/dev/full")) GTEST_SKIP() << "this system has no /dev/full";
  TempDir dir;
  ToolTesting::MakeCache(dir.Path() / "fx", 3, 1500);
  const std::string command = "'" + ToolTesting::ProgramPath() + "' effects get '" +
                              ToolTesting::Utf8(dir.Path() / "fx") + "' fx/1 > /dev/full 2> '" +
                              ToolTesting::Utf8(dir.Path() / "err.txt") + "'";
  const int status = std::system(command.c_str());
  ASSERT_TRUE(WIFEXITED(status)) << command;
  EXPECT_EQ(WEXITSTATUS(status), ExitStatus::kFailed);
  const std::vector<std::uint8_t> err = ToolTesting::ReadFile(dir.Path() / "err.txt");
  EXPECT_TRUE(ToolTesting::Contains(std::string(err.begin(), err.end()), "standard output could not be written"));
}
#endif

TEST(TovrelToolTest, HelpNamesTheGroupOrCommandAskedFor) {
  const ToolTesting::Result group = ToolTesting::Run({"help", "effects"});
  EXPECT_EQ(group.status, ExitStatus::kOk);
  EXPECT_TRUE(ToolTesting::Contains(group.out, "usage: tovrel effects COMMAND")) << group.out;
  const ToolTesting::Result command = ToolTesting::Run({"help", "effects", "salvage"});
  EXPECT_EQ(command.status, ExitStatus::kOk);
  EXPECT_TRUE(ToolTesting::Contains(command.out, "usage: tovrel effects salvage FOLDER")) << command.out;
  EXPECT_EQ(ToolTesting::Run({"help", "frob"}).status, ExitStatus::kUsage);
  const ToolTesting::Result package = ToolTesting::Run({"help", "package"});
  EXPECT_TRUE(ToolTesting::Contains(package.out, "only compact changes it")) << package.out;
}

TEST(TovrelToolTest, DashForOutputIsStandardOutput) {
  TempDir dir;
  ToolTesting::MakeCache(dir.Path() / "fx", 3, 1500);
  const ToolTesting::Result plain = ToolTesting::Run({"effects", "get", ToolTesting::Utf8(dir.Path() / "fx"), "fx/1"});
  const ToolTesting::Result dash =
      ToolTesting::Run({"effects", "get", ToolTesting::Utf8(dir.Path() / "fx"), "fx/1", "-o", "-"});
  EXPECT_EQ(dash.status, ExitStatus::kOk) << dash.err;
  EXPECT_EQ(dash.out, plain.out);
  EXPECT_EQ(dash.out.size(), 1501u);
  EXPECT_FALSE(fs::exists(fs::current_path() / "-"));
}

TEST(TovrelToolTest, AnEmptyArgumentIsAUsageErrorAndTouchesNothing) {
  TempDir dir;
  const fs::path here = fs::current_path();
  fs::current_path(dir.Path());
  ToolTesting::MakeCache(dir.Path(), 3, 1500);
  const std::vector<std::uint8_t> before = ToolTesting::ReadFile(dir.Path() / "norvaneFxoCache.dat");
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"effects", "clear", ""}, {"effects", "trim", "", "--max-size", "1"},
        {"effects", "list", ""}, {"package", "compact", ""}, {"demo", ""}, {"demo", "d", "--remote", ""},
        {"demo", "d", "--remote="}, {"effects", "get", ".", ""}}) {
    SCOPED_TRACE(words[0] + " " + words[1]);
    const ToolTesting::Result result = ToolTesting::Run(words);
    EXPECT_EQ(result.status, ExitStatus::kUsage);
    EXPECT_TRUE(ToolTesting::Contains(result.err, "empty")) << result.err;
  }
  EXPECT_FALSE(fs::exists(dir.Path() / "d"));
  EXPECT_EQ(ToolTesting::ReadFile(dir.Path() / "norvaneFxoCache.dat"), before);
  fs::current_path(here);
}

}  // namespace
}  // namespace Tool
}  // namespace Tovrel
