#include "platform/ConsoleStreams.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include "platform/PlatformProcess.h"
#include "support/ChildLauncher.h"
#include "support/ChildProcess.h"
#include "support/TempDir.h"

namespace {

using Tovrel::ConsoleStreams;
using Tovrel::PlatformProcess;
using Tovrel::Testing::ChildLauncher;
using Tovrel::Testing::TempDir;

// Exits with 1 when it takes its standard output for a terminal, 0 when not.
TOVREL_CHILD_ROLE(output_is_terminal) {
  (void)argc, (void)argv;
  return ConsoleStreams::IsTerminal(ConsoleStreams::Stream::kOutput) ? 1 : 0;
}

// Writes two lines to standard output in binary mode.
TOVREL_CHILD_ROLE(binary_lines) {
  (void)argc, (void)argv;
  ConsoleStreams::UseBinaryOutput();
  std::fputs("one\ntwo\n", stdout);
  return 0;
}

int RunToFile(const std::string& role, const std::string& file) {
  auto child = ChildLauncher::Start(role, {}, file);
  return child == nullptr ? -2 : ChildLauncher::Finish(*child);
}

TEST(ConsoleStreamsTest, OutputToAFileIsNoTerminal) {
  TempDir dir;
  EXPECT_EQ(RunToFile("output_is_terminal", (dir.Path() / "out").string()), 0);
}

TEST(ConsoleStreamsTest, BinaryOutputKeepsNewlinesAsTheyAre) {
  TempDir dir;
  const std::string file = (dir.Path() / "out").string();
  ASSERT_EQ(RunToFile("binary_lines", file), 0);
  std::ifstream in(file, std::ios::binary);
  EXPECT_EQ(std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>()), "one\ntwo\n");
}

}  // namespace
