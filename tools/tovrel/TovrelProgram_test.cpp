// The built tovrel program, run as a process of its own: its exit
// statuses, its messages and the exact bytes it writes to standard output.
#include "TovrelTool.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>

#include "ExitStatus.h"
#include "support/EffectTesting.h"
#include "support/PackagePatch.h"
#include "support/PackageTesting.h"
#include "support/TempDir.h"
#include "tool/ToolTesting.h"

namespace Tovrel {
namespace Tool {
namespace {

namespace fs = std::filesystem;
using Testing::EffectTesting;
using Testing::PackagePatch;
using Testing::PackageTesting;
using Testing::TempDir;
using Testing::ToolTesting;

TEST(TovrelProgramTest, HelpEndsWithZeroAndNoCommandWithAUsageError) {
  TempDir dir;
  const ToolTesting::Result help = ToolTesting::RunProgram({"--help"}, dir.Path());
  EXPECT_EQ(help.status, ExitStatus::kOk);
  EXPECT_TRUE(ToolTesting::Contains(help.out, "usage: tovrel COMMAND")) << help.out;
  const ToolTesting::Result none = ToolTesting::RunProgram({}, dir.Path());
  EXPECT_EQ(none.status, ExitStatus::kUsage);
  EXPECT_EQ(none.out, "");
  EXPECT_TRUE(ToolTesting::Contains(none.err, "usage: tovrel COMMAND")) << none.err;
  const ToolTesting::Result unknown = ToolTesting::RunProgram({"frob"}, dir.Path());
  EXPECT_EQ(unknown.status, ExitStatus::kUsage);
  EXPECT_TRUE(ToolTesting::Contains(unknown.err, "tovrel: unknown command \"tovrel frob\"")) << unknown.err;
}

TEST(TovrelProgramTest, AUsageErrorPointsOnceAtTheHelpOfTheCommandGiven) {
  const struct {
    std::vector<std::string> words;
    std::string err;
  } cases[] = {
      {{"frob"}, "tovrel: unknown command \"tovrel frob\" (see \"tovrel --help\")\n"},
      {{"effects", "frob"}, "tovrel: unknown command \"tovrel effects frob\" (see \"tovrel effects --help\")\n"},
      {{"package", "info"},
       "tovrel: usage: tovrel package info FILE [--json] [--child-files] (see \"tovrel package info --help\")\n"},
      {{"effects", "list", "--bogus", "x"},
       "tovrel: unknown option --bogus (see \"tovrel effects list --help\")\n"},
  };
  for (const auto& c : cases) {
    const auto result = ToolTesting::Run(c.words);
    EXPECT_EQ(result.status, ExitStatus::kUsage) << c.words.back();
    EXPECT_EQ(result.err, c.err);
    EXPECT_TRUE(result.out.empty());
  }
}

TEST(TovrelProgramTest, VersionPrintsTheProjectsVersion) {
  TempDir dir;
  const ToolTesting::Result version = ToolTesting::RunProgram({"--version"}, dir.Path());
  EXPECT_EQ(version.status, ExitStatus::kOk);
  EXPECT_EQ(version.out, std::string("tovrel ") + TOVREL_VERSION + "\n");
  EXPECT_EQ(version.err, "");
}

TEST(TovrelProgramTest, CatWritesTheStreamsBytesUnchanged) {
  TempDir dir;
  const fs::path file = dir.Path() / "p.pkg";
  const std::vector<std::uint64_t> ids = ToolTesting::MakePackage(file, {100, 30000});
  const ToolTesting::Result result =
      ToolTesting::RunProgram({"package", "cat", ToolTesting::Utf8(file), std::to_string(ids[1])}, dir.Path());
  EXPECT_EQ(result.status, ExitStatus::kOk) << result.err;
  const std::vector<std::uint8_t> expected = PackageTesting::Bytes(30000, 2);
  EXPECT_EQ(result.out, std::string(expected.begin(), expected.end()));
}

TEST(TovrelProgramTest, VerifyEndsWithZeroOneOrTwo) {
  TempDir dir;
  const fs::path file = dir.Path() / "p.pkg";
  ToolTesting::MakePackage(file, {100, 30000});
  const std::vector<std::string> verify{"package", "verify", ToolTesting::Utf8(file)};
  EXPECT_EQ(ToolTesting::RunProgram(verify, dir.Path()).status, ExitStatus::kOk);
  PackagePatch patch(file);
  patch.Set(patch.Stream(1, PackagePatch::kWholePages), 2).Save();
  const ToolTesting::Result damaged = ToolTesting::RunProgram(verify, dir.Path());
  EXPECT_EQ(damaged.status, ExitStatus::kFailed);
  EXPECT_TRUE(ToolTesting::Contains(damaged.out, "p.pkg: stream 1: its entry records 2 whole pages")) << damaged.out;
  ToolTesting::FlipBytes(file, 0, 8);
  const ToolTesting::Result unreadable = ToolTesting::RunProgram(verify, dir.Path());
  EXPECT_EQ(unreadable.status, ExitStatus::kUnreadable);
  EXPECT_TRUE(ToolTesting::Contains(unreadable.err, "tovrel: ")) << unreadable.err;
  EXPECT_TRUE(ToolTesting::Contains(unreadable.err, "p.pkg: not a package")) << unreadable.err;
  const ToolTesting::Result missing =
      ToolTesting::RunProgram({"package", "verify", ToolTesting::Utf8(dir.Path() / "none.pkg")}, dir.Path());
  EXPECT_EQ(missing.status, ExitStatus::kUnreadable);
  EXPECT_TRUE(ToolTesting::Contains(missing.err, "none.pkg: no such file")) << missing.err;
}

TEST(TovrelProgramTest, EffectsPutThenGetGiveBackTheBytes) {
  TempDir dir;
  const fs::path folder = dir.Path() / "fxcache";
  fs::create_directory(folder);
  const fs::path input = dir.Path() / "in.bin";
  const std::vector<std::uint8_t> bytes = PackageTesting::Bytes(5000, 9);
  { std::ofstream(input, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size()); }
  const ToolTesting::Result put = ToolTesting::RunProgram(
      {"effects", "put", ToolTesting::Utf8(folder), "fx/\xC3\xA9t\xC3\xA9", ToolTesting::Utf8(input)}, dir.Path());
  EXPECT_EQ(put.status, ExitStatus::kOk) << put.err;
  const ToolTesting::Result get =
      ToolTesting::RunProgram({"effects", "get", ToolTesting::Utf8(folder), "fx/\xC3\xA9t\xC3\xA9"}, dir.Path());
  EXPECT_EQ(get.status, ExitStatus::kOk) << get.err;
  EXPECT_EQ(get.out, std::string(bytes.begin(), bytes.end()));
  const ToolTesting::Result list = ToolTesting::RunProgram({"effects", "list", ToolTesting::Utf8(folder)}, dir.Path());
  EXPECT_TRUE(ToolTesting::Contains(list.out, " fx/\xC3\xA9t\xC3\xA9\n")) << list.out;
}

// One subcommand run as a process on a sound file, on a copy whose first
// bytes (the head chain's page count) are flipped, and on a missing one.
struct Case {
  std::vector<std::string> words;  // the target's place is "@"
  bool onCache;                    // the target is a cache folder, not a package file
  std::string goodOut;             // what standard output holds on the sound target
};

std::vector<std::string> WordsFor(const Case& c, const std::string& target) {
  std::vector<std::string> words = c.words;
  for (std::string& word : words) {
    if (word == "@") word = target;
  }
  return words;
}

TEST(TovrelProgramTest, EverySubcommandOnASoundACorruptedAndAMissingFile) {
  TempDir dir;
  const fs::path good = dir.Path() / "good";
  const fs::path bad = dir.Path() / "bad";
  fs::create_directories(good);
  ToolTesting::MakePackage(good / "p.pkg", {100, 30000});
  ToolTesting::MakeCache(good / "fx", 6, 3000);
  fs::copy(good, bad, fs::copy_options::recursive);
  ToolTesting::FlipBytes(bad / "p.pkg", 0, 8);
  ToolTesting::FlipBytes(bad / "fx" / "norvaneFxoCache.dat", 0, 8);
  const fs::path input = dir.Path() / "in.bin";
  { std::ofstream(input, std::ios::binary) << "an effect"; }
  const std::vector<std::uint8_t> stream = PackageTesting::Bytes(30000, 2);
  const std::vector<unsigned char> effect = EffectTesting::Bytes(2, 3001, true);

  const std::vector<Case> cases{
      {{"package", "info", "@"}, false, "streams      2, holding 30,100 bytes"},
      {{"package", "info", "--json", "@"}, false, "\"count\": 2"},
      {{"package", "ls", "@"}, false, "       1        30000       3"},
      {{"package", "ls", "--json", "@"}, false, "\"sizeBytes\": 30000"},
      {{"package", "cat", "@", "1"}, false, std::string(stream.begin(), stream.end())},
      {{"package", "verify", "@"}, false, "p.pkg: no problem found"},
      {{"effects", "list", "@"}, true, " fx/5\n"},
      {{"effects", "list", "--json", "@"}, true, "\"name\": \"fx/5\""},
      {{"effects", "get", "@", "fx/1"}, true, std::string(effect.begin(), effect.end())},
      {{"effects", "stats", "@"}, true, "effects      6 (2 permanent)"},
      {{"effects", "stats", "--json", "@"}, true, "\"effects\": 6"},
      {{"effects", "verify", "@"}, true, "fx: no problem found (6 effects)"},
      // Last: on the sound folder it adds an effect, which the counts above do not hold.
      {{"effects", "put", "@", "fx/new", ToolTesting::Utf8(input)}, true, ""},
  };
  for (const Case& c : cases) {
    const std::string target = c.onCache ? "fx" : "p.pkg";
    const std::string what = c.words[0] + " " + c.words[1] + (c.words[2] == "--json" ? " --json" : "");

    const ToolTesting::Result sound = ToolTesting::RunProgram(WordsFor(c, ToolTesting::Utf8(good / target)), dir.Path());
    EXPECT_EQ(sound.status, ExitStatus::kOk) << what << ": " << sound.err;
    EXPECT_EQ(sound.err, "") << what;
    EXPECT_TRUE(ToolTesting::Contains(sound.out, c.goodOut)) << what << ": " << sound.out;
    if (c.words[2] == "--json") {
      EXPECT_FALSE(nlohmann::json::parse(sound.out, nullptr, false).is_discarded()) << what;
    }

    const fs::path damagedFile = c.onCache ? bad / "fx" / "norvaneFxoCache.dat" : bad / "p.pkg";
    const std::vector<std::uint8_t> before = ToolTesting::ReadFile(damagedFile);
    const ToolTesting::Result damaged = ToolTesting::RunProgram(WordsFor(c, ToolTesting::Utf8(bad / target)), dir.Path());
    EXPECT_EQ(damaged.status, ExitStatus::kUnreadable) << what;
    EXPECT_EQ(damaged.out, "") << what;
    const std::string named = c.onCache ? "norvaneFxoCache.dat: not a package" : "p.pkg: not a package";
    EXPECT_TRUE(ToolTesting::Contains(damaged.err, named)) << what << ": " << damaged.err;
    EXPECT_EQ(ToolTesting::ReadFile(damagedFile), before) << what << " changed the damaged file";

    const fs::path missing = dir.Path() / "missing" / target;
    const ToolTesting::Result gone = ToolTesting::RunProgram(WordsFor(c, ToolTesting::Utf8(missing)), dir.Path());
    EXPECT_EQ(gone.status, ExitStatus::kUnreadable) << what;
    EXPECT_EQ(gone.out, "") << what;
    const std::string why = c.onCache ? "fx: no such folder" : "p.pkg: no such file";
    EXPECT_TRUE(ToolTesting::Contains(gone.err, why)) << what << ": " << gone.err;
    EXPECT_FALSE(fs::exists(missing)) << what;
  }
  const ToolTesting::Result afterPut =
      ToolTesting::RunProgram({"effects", "get", ToolTesting::Utf8(good / "fx"), "fx/new"}, dir.Path());
  EXPECT_EQ(afterPut.out, "an effect");
}

TEST(TovrelProgramTest, TheDemoRunsColdThenWarmAsTwoProcesses) {
  TempDir dir;
  const std::vector<std::string> demo{"demo", ToolTesting::Utf8(dir.Path() / "fx"), "--effects", "20", "--work", "100"};
  const ToolTesting::Result cold = ToolTesting::RunProgram(demo, dir.Path());
  EXPECT_EQ(cold.status, ExitStatus::kOk) << cold.err;
  EXPECT_TRUE(ToolTesting::Contains(cold.out, "run 1 (cold): 0 hits, 20 misses")) << cold.out;
  EXPECT_EQ(cold.err, "");
  const ToolTesting::Result warm = ToolTesting::RunProgram(demo, dir.Path());
  EXPECT_EQ(warm.status, ExitStatus::kOk) << warm.err;
  EXPECT_TRUE(ToolTesting::Contains(warm.out, "run 2 (warm): 20 hits, 0 misses")) << warm.out;
  EXPECT_TRUE(ToolTesting::Contains(warm.out, "times faster")) << warm.out;
}

}  // namespace
}  // namespace Tool
}  // namespace Tovrel
