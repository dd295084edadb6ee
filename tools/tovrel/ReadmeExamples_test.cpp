// README's examples run as written: each "$ " line of README.md is run by
// bash with the built tovrel first on PATH, in a folder made ready as the
// text around it says (the demo's cache, a trimmed one, two workstations,
// nginx for the team tier), and must exit and print as README shows, up to
// numbers, sizes and times (ReadmeExamples::Shape).
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "support/ChildLauncher.h"
#include "support/RemoteServer.h"
#include "support/TempDir.h"
#include "support/TestRun.h"
#include "tool/ReadmeExamples.h"
#include "tool/ToolTesting.h"

namespace Tovrel {
namespace Tool {
namespace {

namespace fs = std::filesystem;
using Testing::ChildLauncher;
using Testing::ReadmeExamples;
using Testing::RemoteServer;
using Testing::TempDir;
using Testing::ToolTesting;

// The server address README's team-tier examples show.
constexpr const char* kShownServer = "http://127.0.0.1:34114/";

// Where a block of README runs and what makes its folder ready.
struct Setting {
  const char* firstCommand;  // the block's first command starts so
  const char* folder;        // blocks of one folder run one after another in it
  const char* shownAs;       // the folder's absolute path as README shows it; "" when it shows none
  const char* setup;         // run once, before the folder's first block
};

// The demo's effect for the "put" examples, and a cache of 300 effects
// with one permanent effect more.
constexpr const char* kWithPermanent =
    "tovrel demo fxcache --effects 300 > /dev/null && "
    "tovrel effects get fxcache ui/variant_00008.fxo -o glass.fxo && "
    "tovrel effects put fxcache glass_mine glass.fxo --permanent > /dev/null";

const std::vector<Setting>& Settings() {
  static const std::vector<Setting> settings = {
      // tools/demo.sh's two runs at the top of the clone.
      {"tovrel package info build/demo/fxcache", "clone", "/work/main",
       "tovrel demo build/demo/fxcache > /dev/null && tovrel demo build/demo/fxcache > /dev/null"},
      {"cp -r build/demo/fxcache build/demo/damaged", "clone", "/work/main", ""},
      {"tovrel package verify build/demo/damaged", "clone", "/work/main", ""},
      {"tovrel effects salvage build/demo/damaged", "clone", "/work/main", ""},
      // "300 effects, one of them permanent, already trimmed to 1.5 MiB".
      {"tovrel effects trim fxcache --max-size 1.5M --dry-run", "trimmed", "",
       "tovrel demo fxcache --effects 300 > /dev/null && "
       "tovrel effects get fxcache ui/variant_00008.fxo -o glass.fxo && "
       "tovrel effects put fxcache glass_mine glass.fxo --permanent > /dev/null && "
       "tovrel effects trim fxcache --max-size 1.5M > /dev/null"},
      // "300 effects plus one permanent one".
      {"tovrel effects trim fxcache --max-size 1M", "compacted", "", kWithPermanent},
      // "Two demo caches of 200 and 300 effects with the same names, the
      // second run later", and a folder without a cache.
      {"mkdir -p team", "merged", "/tmp/demo",
       "tovrel demo ws1 --effects 200 > /dev/null && tovrel demo ws2 --effects 300 > /dev/null && mkdir ws3"},
      // "the demo ran cold ... and then warm".
      {"tovrel effects stats fxcache", "counted", "/tmp/demo",
       "tovrel demo fxcache --effects 300 > /dev/null && tovrel demo fxcache --effects 300 > /dev/null"},
      // Two workstations against nginx.
      {"tovrel demo ws1 --remote", "workstations", "/tmp/demo", ""},
  };
  return settings;
}

const Setting* SettingOf(const ReadmeExamples::Block& block) {
  for (const Setting& setting : Settings()) {
    if (block.examples.front().command.rfind(setting.firstCommand, 0) == 0) return &setting;
  }
  return nullptr;
}

std::string ReadText(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string Replaced(std::string text, const std::string& from, const std::string& to) {
  if (from.empty()) return text;
  for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

class ReadmeExamplesTest : public testing::Test {
 protected:
  struct Ran {
    int status;
    std::string out;
    std::string err;
  };

  // Runs `script` with bash in `folder`, the built tovrel first on PATH.
  Ran Bash(const fs::path& folder, const std::string& script) {
    const fs::path out = dir_.Path() / "out.txt";
    const fs::path err = dir_.Path() / "err.txt";
    const std::string tools = ToolTesting::Utf8(fs::u8path(ToolTesting::ProgramPath()).parent_path());
    PlatformProcess bash;
    bash.RedirectOutput(ToolTesting::Utf8(out), ToolTesting::Utf8(err));
    const std::string line = "export PATH='" + tools + "':\"$PATH\"; cd '" + ToolTesting::Utf8(folder) + "' && " + script;
    if (!bash.Start("/bin/bash", {"-c", line})) return Ran{-1, "", "bash could not be started"};
    const int status = ChildLauncher::Finish(bash, 600000);
    return Ran{status, ReadText(out), ReadText(err)};
  }

  TempDir dir_;
};

TEST_F(ReadmeExamplesTest, EveryExampleRunsAsWritten) {
#ifdef _WIN32
  GTEST_SKIP() << "README's examples are bash command lines";
#endif
  std::ifstream file(TOVREL_README, std::ios::binary);
  std::ostringstream markdown;
  markdown << file.rdbuf();
  const std::vector<ReadmeExamples::Block> blocks = ReadmeExamples::Parse(markdown.str());
  ASSERT_GE(blocks.size(), 8u) << "README's examples were not found";
  std::unique_ptr<RemoteServer> server = RemoteServer::StartNginx(dir_.Path() / "nginx");
  if (!server) TOVREL_SKIP_OR_FAIL(RemoteServer::WhyNone());
  std::map<std::string, fs::path> made;
  std::size_t run = 0;
  for (const ReadmeExamples::Block& block : blocks) {
    const Setting* setting = SettingOf(block);
    ASSERT_NE(setting, nullptr) << "README line " << block.examples.front().line
                                << ": an example this test does not know how to make ready: "
                                << block.examples.front().command;
    if (made.count(setting->folder) == 0) {
      const fs::path folder = dir_.Path() / setting->folder;
      fs::create_directories(folder);
      made[setting->folder] = folder;
      if (*setting->setup != '\0') {
        const Ran ready = Bash(folder, setting->setup);
        ASSERT_EQ(ready.status, 0) << setting->setup << "\n" << ready.err;
      }
    }
    const std::string folder = ToolTesting::Utf8(made[setting->folder]);
    for (const ReadmeExamples::Example& example : block.examples) {
      const Ran ran = Bash(made[setting->folder], Replaced(example.command, kShownServer, server->Url()));
      const auto shown = [&](const std::string& text) {
        return ReadmeExamples::Shape(
            ReadmeExamples::Lines(Replaced(Replaced(text, server->Url(), kShownServer), folder, setting->shownAs)));
      };
      const std::string where = "README line " + std::to_string(example.line) + ": $ " + example.command;
      EXPECT_EQ(ran.status, example.status) << where << "\n" << ran.out << ran.err;
      EXPECT_EQ(shown(ran.out), ReadmeExamples::Shape(example.out)) << where << "\nprinted:\n" << ran.out;
      EXPECT_EQ(shown(ran.err), ReadmeExamples::Shape(example.err)) << where << "\nmessages:\n" << ran.err;
      ++run;
    }
  }
  EXPECT_GE(run, 30u);
}

TEST(ReadmeExamplesParseTest, ExamplesTheirOutputMessagesAndStatus) {
  const std::string markdown =
      "text\n```\nnot an example\n```\n"
      "```\n$ tovrel a\nline one\ntovrel: a message\n(exit 2)\n$ printf x |\n    cat\n$ tovrel b\n```\n";
  const std::vector<ReadmeExamples::Block> blocks = ReadmeExamples::Parse(markdown);
  ASSERT_EQ(blocks.size(), 1u);
  ASSERT_EQ(blocks[0].examples.size(), 3u);
  const ReadmeExamples::Example& a = blocks[0].examples[0];
  EXPECT_EQ(a.command, "tovrel a");
  EXPECT_EQ(a.out, std::vector<std::string>{"line one"});
  EXPECT_EQ(a.err, std::vector<std::string>{"tovrel: a message"});
  EXPECT_EQ(a.status, 2);
  EXPECT_EQ(a.line, 6);
  EXPECT_EQ(blocks[0].examples[1].command, "printf x |\n    cat");
  EXPECT_EQ(blocks[0].examples[2].status, 0);
}

TEST(ReadmeExamplesParseTest, TheShapeMasksNumbersButNotTheOneOfASingular) {
  EXPECT_EQ(ReadmeExamples::Shape({"removed 1 effect: 3,170 bytes (3.1 KiB) stored"}),
            std::vector<std::string>{"removed 1 effect: # bytes (# iB) stored"});
  EXPECT_EQ(ReadmeExamples::Shape({"left 230 effects: 1,560,921 bytes (1.5 MiB)   stored"}),
            std::vector<std::string>{"left # effects: # bytes (# iB) stored"});
  EXPECT_EQ(ReadmeExamples::Shape({"  wall time:  6.82 s", "", "took 186 ms, 2026-11-23 15:05:12.284"}),
            (std::vector<std::string>{"wall time: # time", "took # time, #-#-# #"}));
  EXPECT_NE(ReadmeExamples::Shape({"1 effects"}), ReadmeExamples::Shape({"1 effect"}));
  EXPECT_EQ(ReadmeExamples::Shape({"newest used  2026-11-23 15:05:18.722 +01:00  particle/variant_01987.fxo"}),
            std::vector<std::string>{"newest used #-#-# # +# (an effect)"});
  EXPECT_EQ(ReadmeExamples::Shape({"12 effects"}), ReadmeExamples::Shape({"7 effects"}));
}

}  // namespace
}  // namespace Tool
}  // namespace Tovrel
