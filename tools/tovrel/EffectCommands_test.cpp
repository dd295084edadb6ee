#include "EffectCommands.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <regex>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

#include "ExitStatus.h"
#include "effectcache/EffectCacheImpl.h"
#include "effectcache/RemoteErrorNote.h"
#include "host/AutoMutex.h"
#include "host/MutexObject.h"
#include "platform/MutexWaits.h"
#include "platform/WideText.h"
#include "support/ChildLauncher.h"
#include "support/ChildProcess.h"
#include "support/EffectTesting.h"
#include "support/PackagePatch.h"
#include "support/TempDir.h"
#include "support/UnprivilegedUser.h"
#include "tool/ToolTesting.h"
#include "tovrel/EffectCacheSystem.h"

namespace Tovrel {
namespace Tool {
namespace {

namespace fs = std::filesystem;
using Testing::EffectTesting;
using Testing::PackagePatch;
using Testing::TempDir;
using Testing::ToolTesting;

// A cache of six effects fx/0 .. fx/5 of 3,000 .. 3,005 bytes; fx/0 and
// fx/5 are permanent.
class EffectCommandsTest : public testing::Test {
 protected:
  void SetUp() override { ToolTesting::MakeCache(folder_, 6, 3000); }

  ToolTesting::Result Run(const std::string& command, const std::vector<std::string>& more = {}) const {
    return ToolTesting::RunOn("effects", command, folder_, more);
  }
  static std::string Expected(std::uint32_t i) {
    const std::vector<unsigned char> bytes = EffectTesting::Bytes(i + 1, 3000 + i, true);
    return std::string(bytes.begin(), bytes.end());
  }
  fs::path CacheFile() const { return folder_ / "norvaneFxoCache.dat"; }
  std::uint64_t StreamOf(const std::string& name) const {
    return EffectTesting::ReadIndex(WideText::FromUtf8(ToolTesting::Utf8(CacheFile()))).at(name).streamId;
  }
  // Damages the compressed bytes of one effect.
  void DamageEffect(const std::string& name) const {
    ToolTesting::FlipBytes(CacheFile(), ToolTesting::FileOffsetOf(CacheFile(), StreamOf(name), 40), 4);
  }
  void DamageHeader() const {
    const PackagePatch patch(CacheFile());
    ToolTesting::FlipBytes(CacheFile(), patch.UserDataLength() + 8, 4);  // the header block's tag
  }

  TempDir dir_;
  fs::path folder_ = dir_.Path() / "fxcache";
};

TEST_F(EffectCommandsTest, ListShowsEveryStoredEffect) {
  const ToolTesting::Result result = Run("list");
  EXPECT_EQ(result.status, ExitStatus::kOk);
  EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 7);
  EXPECT_TRUE(ToolTesting::Contains(result.out, "     3000")) << result.out;
  EXPECT_TRUE(ToolTesting::Contains(result.out, "  p  ")) << result.out;
  for (int i = 0; i < 6; ++i) EXPECT_TRUE(ToolTesting::Contains(result.out, " fx/" + std::to_string(i) + "\n"));
}

TEST_F(EffectCommandsTest, ListAsJsonGivesNameSizesAndPermanence) {
  const ToolTesting::Result result = Run("list", {"--json"});
  EXPECT_EQ(result.status, ExitStatus::kOk);
  const nlohmann::json list = nlohmann::json::parse(result.out);
  ASSERT_TRUE(list.is_array());
  ASSERT_EQ(list.size(), 6u);
  const auto index = EffectTesting::ReadIndex(WideText::FromUtf8(ToolTesting::Utf8(CacheFile())));
  for (const nlohmann::json& effect : list) {
    const std::string name = effect.at("name").get<std::string>();
    const EffectRecord& record = index.at(name);
    EXPECT_EQ(effect.at("sizeBytes").get<std::uint64_t>(), record.uncompressedSize) << name;
    EXPECT_EQ(effect.at("storedBytes").get<std::uint64_t>(), record.compressedSize) << name;
    EXPECT_EQ(effect.at("permanent").get<bool>(), record.permanent != 0) << name;
    EXPECT_EQ(effect.at("stream").get<std::uint64_t>(), record.streamId) << name;
    // ISO 8601 with the offset from UTC: 2026-11-24T17:34:18.875+01:00
    const std::string used = effect.at("lastUsed").get<std::string>();
    EXPECT_TRUE(std::regex_match(used, std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d)"))) << used;
  }
  EXPECT_EQ(list[3].at("name"), "fx/3");
  EXPECT_EQ(list[3].at("sizeBytes"), 3003);
  EXPECT_EQ(list[0].at("permanent"), true);
  EXPECT_EQ(list[1].at("permanent"), false);
}

TEST_F(EffectCommandsTest, GetWritesTheEffectsBytesToOutputOrAFile) {
  const ToolTesting::Result toOutput = Run("get", {"fx/2"});
  EXPECT_EQ(toOutput.status, ExitStatus::kOk);
  EXPECT_EQ(toOutput.out, Expected(2));
  const fs::path file = dir_.Path() / "fx2.bin";
  const ToolTesting::Result toFile = Run("get", {"fx/2", "-o", ToolTesting::Utf8(file)});
  EXPECT_EQ(toFile.status, ExitStatus::kOk);
  EXPECT_EQ(toFile.out, "");
  const std::vector<std::uint8_t> written = ToolTesting::ReadFile(file);
  EXPECT_EQ(std::string(written.begin(), written.end()), Expected(2));
}

TEST_F(EffectCommandsTest, GetWritesToATerminalOnlyWhenForcedOrToAFile) {
  const std::string folder = ToolTesting::Utf8(folder_);
  const ToolTesting::Result refused = ToolTesting::RunOnTerminal({"effects", "get", folder, "fx/2"});
  EXPECT_EQ(refused.status, ExitStatus::kUsage);
  EXPECT_EQ(refused.out, "");
  EXPECT_TRUE(ToolTesting::Contains(refused.err, "not writing binary bytes to a terminal")) << refused.err;
  const ToolTesting::Result forced = ToolTesting::RunOnTerminal({"effects", "get", folder, "fx/2", "--force"});
  EXPECT_EQ(forced.status, ExitStatus::kOk);
  EXPECT_EQ(forced.out, Expected(2));
  const fs::path file = dir_.Path() / "fx2-terminal.bin";
  const ToolTesting::Result toFile =
      ToolTesting::RunOnTerminal({"effects", "get", folder, "fx/2", "-o", ToolTesting::Utf8(file)});
  EXPECT_EQ(toFile.status, ExitStatus::kOk);
  const std::vector<std::uint8_t> written = ToolTesting::ReadFile(file);
  EXPECT_EQ(std::string(written.begin(), written.end()), Expected(2));
}

TEST_F(EffectCommandsTest, StatsShowTheHitCountsAndZeroThem) {
  {
    RefPtr<EffectCacheSystem> host(new EffectCacheSystem(WStr(WideText::FromUtf8(ToolTesting::Utf8(folder_)))));
    Tab<unsigned char> data;
    ASSERT_TRUE(host->SearchCachedEffects(WStr(L"fx/1"), data));
    ASSERT_FALSE(host->SearchCachedEffects(WStr(L"fx/none"), data));
    const auto bytes = EffectTesting::Bytes(77, 500, true);
    ASSERT_TRUE(host->CacheCompiledEffect(WStr(L"fx/new"), bytes.data(), bytes.size(), false));
  }
  const auto counted = Run("stats");
  EXPECT_EQ(counted.status, ExitStatus::kOk);
  EXPECT_TRUE(ToolTesting::Contains(counted.out, "searches     1 hit, 1 miss (hit rate 50.0 %)\n")) << counted.out;
  EXPECT_TRUE(ToolTesting::Contains(counted.out, "cached       7 effects, 0 trimmed\n")) << counted.out;
  EXPECT_TRUE(ToolTesting::Contains(counted.out, "counted since ")) << counted.out;
  const auto zeroed = Run("stats", {"--zero"});
  EXPECT_EQ(zeroed.status, ExitStatus::kOk);
  EXPECT_EQ(zeroed.out.rfind("hit statistics zeroed\n", 0), 0u) << zeroed.out;
  EXPECT_TRUE(ToolTesting::Contains(zeroed.out, "searches     0 hits, 0 misses (hit rate -)\n")) << zeroed.out;
  const nlohmann::json json = nlohmann::json::parse(Run("stats", {"--json"}).out);
  EXPECT_TRUE(json.at("searches").at("hitRate").is_null());
  EXPECT_EQ(json.at("searches").at("hits"), 0);
  EXPECT_EQ(json.at("searches").at("effectsCached"), 0);
  EXPECT_TRUE(json.at("searches").at("countedSince").is_string());
}

// The remote store's last failure, noted beside the file by a host, is
// shown with the remote counts; a cache without one shows neither.
TEST_F(EffectCommandsTest, StatsShowTheRemoteStoresLastError) {
  const nlohmann::json none = nlohmann::json::parse(Run("stats", {"--json"}).out);
  EXPECT_TRUE(none.at("remote").is_null());
  EXPECT_FALSE(ToolTesting::Contains(Run("stats").out, "last error")) << "no store, no error";
  RemoteErrorNote note;
  note.time = CacheTimeStamp::FromSeconds(1795000000);
  note.message = "GET http://cache.studio:8080/fx/3f/a1: HTTP 500";
  ASSERT_TRUE(RemoteErrorNote::Write(RemoteErrorNote::PathFor(CacheFile().wstring()), note));
  const auto text = Run("stats");
  EXPECT_EQ(text.status, ExitStatus::kOk);
  EXPECT_TRUE(ToolTesting::Contains(text.out, "remote       0 fetched, 0 not there, 0 errors; ")) << text.out;
  EXPECT_TRUE(std::regex_search(text.out, std::regex("\nlast error   2026-11-18 [0-9:.]+ [+-][0-9:]+  GET "
                                                     "http://cache.studio:8080/fx/3f/a1: HTTP 500\n")))
      << text.out;
  const nlohmann::json json = nlohmann::json::parse(Run("stats", {"--json"}).out);
  EXPECT_EQ(json.at("remote").at("lastError").at("message"), note.message);
  EXPECT_TRUE(json.at("remote").at("lastError").at("time").is_string());
  ASSERT_EQ(Run("stats", {"--zero"}).status, ExitStatus::kOk);
  EXPECT_FALSE(fs::exists(folder_ / "norvaneFxoCache.remote-error")) << "zeroing removes the note";
}

TEST_F(EffectCommandsTest, VerifyWritesJsonWithEveryProblem) {
  EffectTesting::DamageEffectBytes(WideText::FromUtf8(ToolTesting::Utf8(CacheFile())), "fx/2");
  const auto result = Run("verify", {"--json"});
  EXPECT_EQ(result.status, ExitStatus::kFailed);
  const nlohmann::json json = nlohmann::json::parse(result.out);
  EXPECT_EQ(json.at("ok"), false);
  ASSERT_EQ(json.at("problems").size(), 1u);
  EXPECT_EQ(json.at("problems")[0].get<std::string>().rfind("effect fx/2", 0), 0u) << result.out;
  EXPECT_EQ(json.at("checked"), "6 effects");
  EXPECT_TRUE(json.at("journal").is_null());
  EXPECT_TRUE(json.at("file").is_string());
}

TEST_F(EffectCommandsTest, AnOutputFileThatCannotBeWrittenSaysWhy) {
  const fs::path target = dir_.Path() / "no-such-folder" / "fx2.bin";
  const auto result = Run("get", {"fx/2", "-o", ToolTesting::Utf8(target)});
  EXPECT_EQ(result.status, ExitStatus::kFailed);
  EXPECT_TRUE(ToolTesting::Contains(result.err, "fx2.bin: cannot be written (")) << result.err;
}

TEST_F(EffectCommandsTest, ListFiltersByAPatternAndSorts) {
  // The names of the listed lines, in order.
  const auto names = [](const std::string& out) {
    std::vector<std::string> found;
    std::istringstream lines(out);
    std::string line;
    std::getline(lines, line);  // the heading
    while (std::getline(lines, line)) found.push_back(line.substr(line.rfind(' ') + 1));
    return found;
  };
  EXPECT_EQ(names(Run("list", {"fx/?", "--sort", "size"}).out),
            (std::vector<std::string>{"fx/5", "fx/4", "fx/3", "fx/2", "fx/1", "fx/0"}));
  EXPECT_EQ(names(Run("list", {"*[34]*"}).out), std::vector<std::string>{});
  EXPECT_EQ(names(Run("list", {"*3", "--sort", "name"}).out), std::vector<std::string>{"fx/3"});
  EffectTesting::PatchRecord(WideText::FromUtf8(ToolTesting::Utf8(CacheFile())), "fx/4",
                             [](EffectRecord& r) { r.lastUsed = CacheTimeStamp{2001, 1, 1, 0, 0, 0, 0}; });
  EXPECT_EQ(names(Run("list", {"--sort", "used"}).out).front(), "fx/4");
  const auto bad = Run("list", {"--sort", "colour"});
  EXPECT_EQ(bad.status, ExitStatus::kUsage);
  EXPECT_TRUE(ToolTesting::Contains(bad.err, "--sort must be name, size, stored or used")) << bad.err;
  const nlohmann::json json = nlohmann::json::parse(Run("list", {"fx/1", "--json"}).out);
  ASSERT_EQ(json.size(), 1u);
  EXPECT_EQ(json[0].at("name"), "fx/1");
}

TEST_F(EffectCommandsTest, GetOfAnEffectThatIsNotThereFails) {
  const ToolTesting::Result result = Run("get", {"fx/99"});
  EXPECT_EQ(result.status, ExitStatus::kFailed);
  EXPECT_TRUE(ToolTesting::Contains(result.err, "fxcache: no effect fx/99")) << result.err;
}

TEST_F(EffectCommandsTest, PutStoresAFileThroughTheLibrary) {
  const fs::path file = dir_.Path() / "glass.bin";
  const std::vector<unsigned char> bytes = EffectTesting::Bytes(42, 10000, true);
  { std::ofstream(file, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size()); }
  const ToolTesting::Result result = Run("put", {"shaders/glass.fx", ToolTesting::Utf8(file), "--permanent"});
  EXPECT_EQ(result.status, ExitStatus::kOk) << result.err;
  EXPECT_TRUE(ToolTesting::Contains(result.out, "stored shaders/glass.fx: 10,000 bytes")) << result.out;
  EXPECT_TRUE(ToolTesting::Contains(result.out, ", permanent")) << result.out;
  RefPtr<EffectCacheSystem> host(new EffectCacheSystem(WStr(WideText::FromUtf8(ToolTesting::Utf8(folder_)))));
  Tab<unsigned char> found;
  ASSERT_TRUE(host->SearchCachedEffects(WStr(L"shaders/glass.fx"), found));
  EXPECT_EQ(EffectTesting::ToVector(found), bytes);
  EXPECT_EQ(host->GetNumberOfEffectsInFile(), 7u);
}

TEST_F(EffectCommandsTest, PutIntoAFolderWithoutACacheStartsOne) {
  const fs::path other = dir_.Path() / "new";
  fs::create_directory(other);
  const fs::path file = dir_.Path() / "one.bin";
  { std::ofstream(file, std::ios::binary) << "x"; }
  EXPECT_EQ(ToolTesting::Run({"effects", "put", ToolTesting::Utf8(other), "one", ToolTesting::Utf8(file)}).status,
            ExitStatus::kOk);
  const ToolTesting::Result got = ToolTesting::Run({"effects", "get", ToolTesting::Utf8(other), "one"});
  EXPECT_EQ(got.out, "x");
}

TEST_F(EffectCommandsTest, PutRefusesFilesThatAreNoEffect) {
  const fs::path empty = dir_.Path() / "empty.bin";
  { std::ofstream touch(empty); }
  const fs::path large = dir_.Path() / "large.bin";
  fs::resize_file((std::ofstream(large).close(), large), 1048577);
  EXPECT_EQ(Run("put", {"e", ToolTesting::Utf8(empty)}).status, ExitStatus::kFailed);
  const ToolTesting::Result tooLarge = Run("put", {"l", ToolTesting::Utf8(large)});
  EXPECT_EQ(tooLarge.status, ExitStatus::kFailed);
  EXPECT_TRUE(ToolTesting::Contains(tooLarge.err, "large.bin: 1048577 bytes, more than 1048576")) << tooLarge.err;
  EXPECT_EQ(Run("put", {"m", ToolTesting::Utf8(dir_.Path() / "missing.bin")}).status, ExitStatus::kFailed);
  EXPECT_EQ(Run("list").out.find(" e\n"), std::string::npos);
}

TEST_F(EffectCommandsTest, PutSaysWhatIsWrongWithAName) {
  const fs::path file = dir_.Path() / "one.bin";
  { std::ofstream(file, std::ios::binary) << "x"; }
  const ToolTesting::Result notUtf8 = Run("put", {"bad\xff", ToolTesting::Utf8(file)});
  EXPECT_EQ(notUtf8.status, ExitStatus::kUsage);
  EXPECT_TRUE(ToolTesting::Contains(notUtf8.err, "the effect name is not UTF-8")) << notUtf8.err;
  const ToolTesting::Result tooLong = Run("put", {std::string(70000, 'n'), ToolTesting::Utf8(file)});
  EXPECT_EQ(tooLong.status, ExitStatus::kUsage);
  EXPECT_TRUE(ToolTesting::Contains(tooLong.err, "(70,000 bytes) is longer than 65,536 bytes")) << tooLong.err;
  EXPECT_LT(tooLong.err.size(), 300u) << "the long name was echoed";
  EXPECT_EQ(Run("list").out.find("bad"), std::string::npos);
}

TEST_F(EffectCommandsTest, PutLeavesADamagedCacheAlone) {
  DamageHeader();
  const std::vector<std::uint8_t> before = ToolTesting::ReadFile(CacheFile());
  const fs::path file = dir_.Path() / "one.bin";
  { std::ofstream(file, std::ios::binary) << "x"; }
  const ToolTesting::Result result = Run("put", {"one", ToolTesting::Utf8(file)});
  EXPECT_EQ(result.status, ExitStatus::kUnreadable);
  EXPECT_TRUE(ToolTesting::Contains(result.err, "not a cache the library would load")) << result.err;
  EXPECT_EQ(ToolTesting::ReadFile(CacheFile()), before);
}

TEST_F(EffectCommandsTest, StatsCountsBytesRatioAndUse) {
  const ToolTesting::Result result = Run("stats");
  EXPECT_EQ(result.status, ExitStatus::kOk);
  EXPECT_TRUE(ToolTesting::Contains(result.out, "effects      6 (2 permanent)")) << result.out;
  EXPECT_TRUE(ToolTesting::Contains(result.out, "effects      18,015 bytes (17.6 KiB) uncompressed")) << result.out;
  EXPECT_TRUE(ToolTesting::Contains(result.out, "compression  ")) << result.out;
  EXPECT_TRUE(ToolTesting::Contains(result.out, "oldest used  ")) << result.out;
  EXPECT_TRUE(ToolTesting::Contains(result.out, "newest used  ")) << result.out;
  EXPECT_TRUE(ToolTesting::Contains(result.out, "access       read and write\n")) << result.out;
  const nlohmann::json json = nlohmann::json::parse(Run("stats", {"--json"}).out);
  EXPECT_EQ(json.at("access"), "read and write");
  EXPECT_EQ(json.at("effects"), 6);
  EXPECT_EQ(json.at("permanent"), 2);
  EXPECT_EQ(json.at("sizeBytes"), 18015);
  EXPECT_GT(json.at("storedBytes").get<std::uint64_t>(), 0u);
  EXPECT_EQ(json.at("fileBytes").get<std::uint64_t>(), fs::file_size(CacheFile()));
  EXPECT_NEAR(json.at("compressionRatio").get<double>(), 18015.0 / json.at("storedBytes").get<double>(), 1e-5);
  EXPECT_TRUE(json.at("oldestUsed").at("time").is_string());
  EXPECT_TRUE(json.at("newestUsed").at("name").is_string());
}

// In a folder that refuses new files (made 0555 by a process the mode
// stops), stats says that a host serves the cache read only, and why.
// Exit status 0 when every check held.
int CheckStatsInAReadOnlyFolder(const fs::path& folder) {
  ToolTesting::MakeCache(folder, 3, 2000);
  const fs::perms readAndEnter = fs::perms::owner_read | fs::perms::owner_exec | fs::perms::group_read |
                                 fs::perms::group_exec | fs::perms::others_read | fs::perms::others_exec;
  fs::permissions(folder, readAndEnter);
  EXPECT_FALSE(std::ofstream(folder / "probe").is_open()) << "the folder's mode does not stop this process";
  const ToolTesting::Result text = ToolTesting::RunOn("effects", "stats", folder);
  EXPECT_EQ(text.status, ExitStatus::kOk) << text.err;
  EXPECT_TRUE(ToolTesting::Contains(text.out, "access       read only: cannot create the journal\n")) << text.out;
  const nlohmann::json json = nlohmann::json::parse(ToolTesting::RunOn("effects", "stats", folder, {"--json"}).out);
  EXPECT_EQ(json.at("access"), "read only: cannot create the journal");
  EXPECT_EQ(json.at("effects"), 3);
  // A put says why it kept nothing.
  const ToolTesting::Result put = ToolTesting::Run(
      {"effects", "put", ToolTesting::Utf8(folder), "new/one", ToolTesting::Utf8(folder / "norvaneFxoCache.dat")});
  EXPECT_EQ(put.status, ExitStatus::kFailed);
  EXPECT_TRUE(ToolTesting::Contains(put.err, "did not keep new/one (read only: cannot create the journal)")) << put.err;
  // So does a change that fails.
  const ToolTesting::Result clear = ToolTesting::RunOn("effects", "clear", folder);
  EXPECT_EQ(clear.status, ExitStatus::kFailed);
  EXPECT_TRUE(ToolTesting::Contains(clear.err, "could not be opened or saved (read only: cannot create the journal)"))
      << clear.err;
  fs::permissions(folder, fs::perms::owner_write, fs::perm_options::add);
  return ::testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed() ? 1 : 0;
}

TOVREL_CHILD_ROLE(stats_in_a_read_only_folder) {
  fs::path folder;
  std::string why;
  if (!Testing::UnprivilegedUser::BecomeFromArguments(argc, argv, &folder, &why)) {
    std::cerr << why << "\n";
    return 3;
  }
  return CheckStatsInAReadOnlyFolder(folder);
}

TEST(EffectStatsAccessTest, AFolderThatRefusesTheJournalIsReportedReadOnly) {
#ifdef _WIN32
  GTEST_SKIP() << "a Windows folder's read-only attribute does not stop new files in it";
#else
  TempDir dir;
  const fs::path folder = dir.Path() / "deployed";
  fs::create_directories(folder);
  if (!Testing::UnprivilegedUser::ThisProcessIsPrivileged()) {
    EXPECT_EQ(CheckStatsInAReadOnlyFolder(folder), 0);
    return;
  }
  std::string why;
  EXPECT_EQ(Testing::UnprivilegedUser::RunChildAs("stats_in_a_read_only_folder", folder, &why), 0)
      << "the checks as an unprivileged user failed (see above) " << why;
#endif
}

TEST_F(EffectCommandsTest, VerifyCountsOneEffectInTheSingular) {
  const fs::path one = dir_.Path() / "one";
  ToolTesting::MakeCache(one, 1, 500);
  const ToolTesting::Result result = ToolTesting::RunOn("effects", "verify", one);
  EXPECT_EQ(result.status, ExitStatus::kOk);
  EXPECT_TRUE(ToolTesting::Contains(result.out, ": no problem found (1 effect)\n")) << result.out;
}

TEST_F(EffectCommandsTest, VerifyOfASoundCacheFindsNoProblem) {
  const ToolTesting::Result result = Run("verify");
  EXPECT_EQ(result.status, ExitStatus::kOk) << result.out;
  EXPECT_TRUE(ToolTesting::Contains(result.out, "fxcache: no problem found (6 effects)")) << result.out;
}

TEST_F(EffectCommandsTest, VerifyAndGetFindAnEffectWhoseBytesAreDamaged) {
  DamageEffect("fx/4");
  const ToolTesting::Result result = Run("verify");
  EXPECT_EQ(result.status, ExitStatus::kFailed);
  EXPECT_TRUE(ToolTesting::Contains(result.out, "fxcache: effect fx/4: its compressed bytes are damaged")) << result.out;
  EXPECT_TRUE(ToolTesting::Contains(result.out, "fxcache: 1 problem\n")) << result.out;
  const ToolTesting::Result get = Run("get", {"fx/4"});
  EXPECT_EQ(get.status, ExitStatus::kFailed);
  EXPECT_TRUE(ToolTesting::Contains(get.err, "effect fx/4: its compressed bytes are damaged")) << get.err;
  EXPECT_EQ(Run("get", {"fx/3"}).out, Expected(3));
  EXPECT_EQ(Run("list").status, ExitStatus::kOk);
  EXPECT_EQ(Run("stats").status, ExitStatus::kOk);
}

TEST_F(EffectCommandsTest, VerifyFindsRecordsThatDisagreeWithTheirStreams) {
  const std::wstring file = WideText::FromUtf8(ToolTesting::Utf8(CacheFile()));
  EffectTesting::PatchRecord(file, "fx/1", [](EffectRecord& r) { r.uncompressedSize += 1; });
  EffectTesting::PatchRecord(file, "fx/2", [](EffectRecord& r) { r.compressedSize += 1; });
  const ToolTesting::Result result = Run("verify");
  EXPECT_EQ(result.status, ExitStatus::kFailed);
  EXPECT_TRUE(ToolTesting::Contains(result.out, "effect fx/1: it decompresses to another size than its record says"))
      << result.out;
  EXPECT_TRUE(ToolTesting::Contains(result.out, "effect fx/2: its stream's size differs from its record"))
      << result.out;
}

TEST_F(EffectCommandsTest, VerifyFindsAStreamOfNoEffectAndAMissingStream) {
  const std::uint64_t stray = ToolTesting::AddStream(CacheFile(), 100);
  const std::wstring file = WideText::FromUtf8(ToolTesting::Utf8(CacheFile()));
  EffectTesting::PatchRecord(file, "fx/3", [](EffectRecord& r) { r.streamId = 5000; });
  const ToolTesting::Result result = Run("verify");
  EXPECT_EQ(result.status, ExitStatus::kFailed);
  EXPECT_TRUE(ToolTesting::Contains(result.out, "stream " + std::to_string(stray) + " belongs to no effect"))
      << result.out;
  EXPECT_TRUE(ToolTesting::Contains(result.out, "effect fx/3: its stream is missing")) << result.out;
}

TEST_F(EffectCommandsTest, EveryCommandRefusesAMissingFolderOrCache) {
  const fs::path empty = dir_.Path() / "empty";
  fs::create_directory(empty);
  for (const std::string command : {"list", "get", "stats", "verify"}) {
    std::vector<std::string> words{"effects", command, ToolTesting::Utf8(dir_.Path() / "missing")};
    if (command == "get") words.push_back("fx/1");
    const ToolTesting::Result missing = ToolTesting::Run(words);
    EXPECT_EQ(missing.status, ExitStatus::kUnreadable) << command;
    EXPECT_TRUE(ToolTesting::Contains(missing.err, "missing: no such folder")) << missing.err;
    words[2] = ToolTesting::Utf8(empty);
    const ToolTesting::Result noCache = ToolTesting::Run(words);
    EXPECT_EQ(noCache.status, ExitStatus::kUnreadable) << command;
    EXPECT_TRUE(ToolTesting::Contains(noCache.err, "empty: no effect cache here")) << noCache.err;
  }
  EXPECT_TRUE(fs::is_empty(empty));
  const fs::path file = dir_.Path() / "one.bin";
  { std::ofstream(file, std::ios::binary) << "x"; }
  const ToolTesting::Result put =
      ToolTesting::Run({"effects", "put", ToolTesting::Utf8(dir_.Path() / "missing"), "one", ToolTesting::Utf8(file)});
  EXPECT_EQ(put.status, ExitStatus::kUnreadable);
  EXPECT_FALSE(fs::exists(dir_.Path() / "missing"));
}

TEST_F(EffectCommandsTest, EveryReadingCommandRefusesACacheWithADamagedHeader) {
  DamageHeader();
  for (const std::string command : {"list", "get", "stats", "verify"}) {
    const ToolTesting::Result result = Run(command, command == "get" ? std::vector<std::string>{"fx/1"}
                                                                      : std::vector<std::string>{});
    EXPECT_EQ(result.status, ExitStatus::kUnreadable) << command;
    EXPECT_TRUE(ToolTesting::Contains(result.err, "norvaneFxoCache.dat: not a cache the library would load: no "
                                                  "header block"))
        << result.err;
  }
}

TEST_F(EffectCommandsTest, ACacheFileThatIsNoPackageIsUnreadable) {
  ToolTesting::FlipBytes(CacheFile(), 0, 8);
  const ToolTesting::Result result = Run("verify");
  EXPECT_EQ(result.status, ExitStatus::kUnreadable);
  EXPECT_TRUE(ToolTesting::Contains(result.err, "norvaneFxoCache.dat: not a package")) << result.err;
}

TEST_F(EffectCommandsTest, ReadingWaitsForTheCachesNamedMutex) {
  // The reader's wait is looked for in short turns, so that a reader that
  // never waits is seen to finish; all of them last as long as a child
  // process may take.
  constexpr std::uint32_t kLookMilliseconds = 10;
  constexpr std::uint32_t kLooks = Testing::ChildLauncher::kBoundMilliseconds / kLookMilliseconds;
  const WStr path = CacheFileNames::CacheFilePathFor(WStr(WideText::FromUtf8(ToolTesting::Utf8(folder_))));
  const std::wstring name = CacheFileNames::FileMutexName(path.data());
  NorvaneSDK::Util::MutexObject mutex(name.c_str());
  std::atomic<bool> done{false};
  ToolTesting::Result result{};
  std::thread reader;
  {
    NorvaneSDK::Util::AutoMutex hold(mutex);
    ASSERT_TRUE(hold.IsOwner());
    MutexWaits::StartCounting();
    reader = std::thread([&]() {
      result = Run("list");
      done = true;
    });
    // The reader reports its wait for the mutex this thread holds (or it
    // finishes without ever waiting for it); until this thread lets go, it
    // must not have read anything.
    bool waiting = false;
    for (std::uint32_t look = 0; look < kLooks && !waiting && !done; ++look) {
      waiting = MutexWaits::AwaitWaiter(WideText::ToUtf8(name), kLookMilliseconds);
    }
    EXPECT_TRUE(waiting) << "the reader never waited for the cache's mutex";
    EXPECT_FALSE(done.load());
  }
  reader.join();
  MutexWaits::Reset();
  EXPECT_TRUE(done.load());
  EXPECT_EQ(result.status, ExitStatus::kOk);
  EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 7) << result.out;
}

TEST_F(EffectCommandsTest, HelpAtEveryLevel) {
  const ToolTesting::Result group = ToolTesting::Run({"effects", "-h"});
  EXPECT_EQ(group.status, ExitStatus::kOk);
  for (const char* command : {"list", "get", "put", "stats", "verify"}) {
    EXPECT_TRUE(ToolTesting::Contains(group.out, std::string("\n  ") + command + " ")) << command;
    const ToolTesting::Result leaf = ToolTesting::Run({"effects", command, "--help"});
    EXPECT_EQ(leaf.status, ExitStatus::kOk);
    EXPECT_TRUE(ToolTesting::Contains(leaf.out, std::string("usage: tovrel effects ") + command)) << leaf.out;
  }
  EXPECT_EQ(ToolTesting::Run({"effects", "get", "folder"}).status, ExitStatus::kUsage);
}

TEST_F(EffectCommandsTest, VerifyReportsAnInterruptedSaveAndChecksTheCacheAsTheRollbackWillLeaveIt) {
  {
    // Effects that take whole pages, so that rewriting them moves pages
    // through a small page cache to the file.
    RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(WStr(folder_.wstring().c_str())));
    for (std::uint32_t i = 0; i < 4; ++i) {
      const auto bytes = EffectTesting::Bytes(70 + i, 30000, false);
      const std::wstring name = L"fx/large" + std::to_wstring(i);
      ASSERT_TRUE(cache->CacheCompiledEffect(WStr(name.c_str()), bytes.data(), bytes.size(), false));
    }
  }
  const std::vector<std::uint8_t> saved = ToolTesting::ReadFile(CacheFile());
  // A process that changed the cache file's streams and died before saving
  // (the role belongs to the package commands' tests).
  auto child = Testing::ChildLauncher::Start("interrupted_save", {ToolTesting::Utf8(CacheFile())});
  ASSERT_NE(child, nullptr);
  ASSERT_EQ(Testing::ChildLauncher::Finish(*child), 0);
  const std::vector<std::uint8_t> interrupted = ToolTesting::ReadFile(CacheFile());
  ASSERT_NE(interrupted, saved);
  const ToolTesting::Result verify = Run("verify");
  EXPECT_EQ(verify.status, ExitStatus::kOk) << verify.out;
  EXPECT_TRUE(ToolTesting::Contains(verify.out, "an interrupted save will be rolled back when the library next opens it"))
      << verify.out;
  const ToolTesting::Result get = Run("get", {"fx/3"});
  EXPECT_EQ(get.out, Expected(3));
  EXPECT_EQ(ToolTesting::ReadFile(CacheFile()), interrupted);
}

}  // namespace
}  // namespace Tool
}  // namespace Tovrel
