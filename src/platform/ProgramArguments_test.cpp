#include "platform/ProgramArguments.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "support/ChildLauncher.h"
#include "support/ChildProcess.h"
#include "support/TempDir.h"

namespace {

using Tovrel::ProgramArguments;
using Tovrel::Testing::ChildLauncher;
using Tovrel::Testing::TempDir;

// Writes the program's arguments, as ProgramArguments gives them, to the
// file its first argument names, one a line. The role is handed main's
// arguments after the program's name and the role switch, so main's own
// are two words before them.
TOVREL_CHILD_ROLE(arguments_as_utf8) {
  if (argc < 1) return 99;
  const std::vector<std::string> words = ProgramArguments::Get(argc + 2, argv - 2);
  std::ofstream out(argv[0], std::ios::binary);
  for (const std::string& word : words) out << word << '\n';
  return 0;
}

TEST(ProgramArgumentsTest, GivesTheWordsAfterTheProgramAsUtf8) {
  TempDir dir;
  const std::string file = (dir.Path() / "words.txt").string();
  const std::vector<std::string> sent{"plain", "with space", "caf\xC3\xA9", "\xE6\x97\xA5\xE6\x9C\xAC"};
  std::vector<std::string> arguments{file};
  arguments.insert(arguments.end(), sent.begin(), sent.end());
  auto child = ChildLauncher::Start("arguments_as_utf8", arguments);
  ASSERT_NE(child, nullptr);
  ASSERT_EQ(ChildLauncher::Finish(*child), 0);
  std::ifstream in(file, std::ios::binary);
  std::vector<std::string> received;
  for (std::string line; std::getline(in, line);) received.push_back(line);
  std::vector<std::string> expected{"--tovrel-child=arguments_as_utf8", file};
  expected.insert(expected.end(), sent.begin(), sent.end());
  EXPECT_EQ(received, expected);
}

}  // namespace
