#include "MaintenanceCommands.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <filesystem>
#include <string>
#include <vector>

#include "ExitStatus.h"
#include "TextFormat.h"
#include "effectcache/CacheTimeStamp.h"
#include "effectcache/EffectRecord.h"
#include "platform/WideText.h"
#include "support/EffectTesting.h"
#include "support/TempDir.h"
#include "tool/ToolTesting.h"

namespace Tovrel {
namespace Tool {
namespace {

namespace fs = std::filesystem;
using Testing::EffectTesting;
using Testing::TempDir;
using Testing::ToolTesting;

// Six effects fx/0 .. fx/5 of 3,000 .. 3,005 bytes; fx/0 and fx/5 are permanent.
class MaintenanceCommandsTest : public testing::Test {
 protected:
  void SetUp() override { ToolTesting::MakeCache(folder_, 6, 3000); }
  ToolTesting::Result Run(const std::string& command, const std::vector<std::string>& more = {}) const {
    return ToolTesting::RunOn("effects", command, folder_, more);
  }
  std::wstring CacheFile() const { return WideText::FromUtf8(ToolTesting::Utf8(folder_ / "norvaneFxoCache.dat")); }
  std::vector<std::string> Names() const { return EffectTesting::IndexNames(CacheFile()); }
  std::uint64_t StoredOf(const std::vector<std::string>& names) const {
    const auto index = EffectTesting::ReadIndex(CacheFile());
    std::uint64_t total = 0;
    for (const std::string& name : names) total += index.at(name).compressedSize;
    return total;
  }
  static std::string Lines(const std::string& verb, std::size_t removed, std::uint64_t removedBytes,
                           const std::string& leftVerb, std::size_t left, std::uint64_t leftBytes) {
    const auto effects = [](std::size_t n) { return std::to_string(n) + (n == 1 ? " effect" : " effects"); };
    return verb + " " + effects(removed) + ": " + TextFormat::Bytes(removedBytes) + " stored\n" + leftVerb + " " +
           effects(left) + ": " + TextFormat::Bytes(leftBytes) + " stored\n";
  }

  TempDir dir_;
  fs::path folder_ = dir_.Path() / "fxcache";
};

TEST_F(MaintenanceCommandsTest, RemoveTakesTheNamedEffectsAndListsTheMissing) {
  const std::uint64_t gone = StoredOf({"fx/1", "fx/5"});
  const std::uint64_t left = StoredOf({"fx/0", "fx/2", "fx/3", "fx/4"});
  const auto result = Run("remove", {"fx/1", "fx/5", "fx/77"});
  EXPECT_EQ(result.status, ExitStatus::kFailed);
  EXPECT_EQ(result.out, Lines("removed", 2, gone, "left", 4, left));
  EXPECT_EQ(result.err, "tovrel: " + ToolTesting::Utf8(folder_) + ": no effect fx/77\n");
  EXPECT_EQ(Names(), (std::vector<std::string>{"fx/0", "fx/2", "fx/3", "fx/4"}));
}

TEST_F(MaintenanceCommandsTest, RemoveTakesPatternsAsListDoes) {
  const auto dry = Run("remove", {"--dry-run", "fx/?"});
  EXPECT_EQ(dry.status, ExitStatus::kOk) << dry.err;
  EXPECT_TRUE(ToolTesting::Contains(dry.out, "would remove 6 effects")) << dry.out;
  EXPECT_EQ(Names().size(), 6u);
  const std::uint64_t gone = StoredOf({"fx/1", "fx/5"});
  const std::uint64_t left = StoredOf({"fx/0", "fx/2", "fx/3", "fx/4"});
  const auto result = Run("remove", {"fx/1", "*5", "zz*"});
  EXPECT_EQ(result.status, ExitStatus::kFailed);
  EXPECT_EQ(result.out, Lines("removed", 2, gone, "left", 4, left));
  EXPECT_EQ(result.err, "tovrel: " + ToolTesting::Utf8(folder_) + ": no effect matches zz*\n");
  EXPECT_EQ(Names(), (std::vector<std::string>{"fx/0", "fx/2", "fx/3", "fx/4"}));
}

TEST_F(MaintenanceCommandsTest, ClearKeepsThePermanentWhenAskedAndADryRunWritesNothing) {
  const auto before = TempDir::ReadAll(CacheFile());
  const auto dry = Run("clear", {"--dry-run"});
  EXPECT_EQ(dry.status, ExitStatus::kOk);
  EXPECT_EQ(dry.out, Lines("would remove", 6, StoredOf(Names()), "would leave", 0, 0));
  EXPECT_EQ(TempDir::ReadAll(CacheFile()), before);
  const auto keep = Run("clear", {"--keep-permanent"});
  EXPECT_EQ(keep.status, ExitStatus::kOk);
  EXPECT_EQ(Names(), (std::vector<std::string>{"fx/0", "fx/5"}));
  EXPECT_EQ(Run("clear").status, ExitStatus::kOk);
  EXPECT_TRUE(Names().empty());
  // Every effect the tool took out counts as trimmed.
  const nlohmann::json stats = nlohmann::json::parse(Run("stats", {"--json"}).out);
  EXPECT_EQ(stats.at("searches").at("effectsTrimmed"), 6);
}

TEST_F(MaintenanceCommandsTest, TrimToASizeSaysWhenOnlyPermanentEffectsAreLeft) {
  const auto result = Run("trim", {"--max-size", "1"});
  EXPECT_EQ(result.status, ExitStatus::kOk);
  EXPECT_EQ(Names(), (std::vector<std::string>{"fx/0", "fx/5"}));
  EXPECT_NE(result.out.find("the size cannot be reached: permanent effects hold"), std::string::npos) << result.out;
}

TEST_F(MaintenanceCommandsTest, TrimByAgeKeepsWhatWasUsedRecently) {
  EffectTesting::PatchRecord(CacheFile(), "fx/2", [](EffectRecord& r) { r.lastUsed = CacheTimeStamp{2001, 1, 1, 0, 0, 0, 0}; });
  const auto result = Run("trim", {"--older-than", "30d"});
  EXPECT_EQ(result.status, ExitStatus::kOk);
  EXPECT_EQ(Names(), (std::vector<std::string>{"fx/0", "fx/1", "fx/3", "fx/4", "fx/5"}));
  EXPECT_EQ(result.out.rfind("removed 1 effect: ", 0), 0u) << result.out;
}

TEST_F(MaintenanceCommandsTest, MergeCopiesTheEffectsOfOtherFoldersAndNamesTheUnreadable) {
  const fs::path other = dir_.Path() / "other";
  ToolTesting::MakeCache(other, 8, 5000);  // fx/0 .. fx/7: fx/6 and fx/7 are new here
  const auto result = ToolTesting::RunOn("effects", "merge", folder_,
                                         {ToolTesting::Utf8(other), ToolTesting::Utf8(dir_.Path() / "none")});
  EXPECT_EQ(result.status, ExitStatus::kFailed);  // one source could not be read
  EXPECT_EQ(result.out.rfind("copied 8 effects: ", 0), 0u) << result.out;  // all newer than the destination's
  EXPECT_TRUE(ToolTesting::Contains(result.err, "none: no effect cache a host would load, or a damaged one; skipped")) << result.err;
  EXPECT_EQ(Names().size(), 8u);
  EXPECT_EQ(EffectTesting::ReadIndex(CacheFile()).at("fx/0").uncompressedSize, 5000u);
  const fs::path fresh = dir_.Path() / "fresh";
  fs::create_directories(fresh);
  const auto intoNew = ToolTesting::RunOn("effects", "merge", fresh, {ToolTesting::Utf8(other)});
  EXPECT_EQ(intoNew.status, ExitStatus::kOk);
  EXPECT_EQ(EffectTesting::IndexNames(WideText::FromUtf8(ToolTesting::Utf8(fresh / "norvaneFxoCache.dat"))).size(), 8u);
  const auto again = ToolTesting::RunOn("effects", "merge", folder_, {ToolTesting::Utf8(other)});
  EXPECT_EQ(again.status, ExitStatus::kOk);
  EXPECT_EQ(again.out.rfind("copied 0 effects: 0 bytes stored\nkept 8 effects that ", 0), 0u) << again.out;
}

TEST_F(MaintenanceCommandsTest, CompactShrinksTheCacheFileAndKeepsEveryEffectThroughEitherCommand) {
  ToolTesting::MakeCache(folder_, 40, 5000);
  ASSERT_EQ(Run("trim", {"--max-size", "40K"}).status, ExitStatus::kOk);
  const std::vector<std::string> left = Names();
  const fs::path file = folder_ / "norvaneFxoCache.dat";
  const std::uint64_t before = fs::file_size(file);
  const auto result = Run("compact");
  ASSERT_EQ(result.status, ExitStatus::kOk) << result.err;
  const std::uint64_t after = fs::file_size(file);
  EXPECT_LT(after, before);
  EXPECT_EQ(result.out, "compacted " + ToolTesting::Utf8(file) + ": " + TextFormat::Bytes(before) + " before, " +
                            TextFormat::Bytes(after) + " after\n");
  EXPECT_EQ(Names(), left);
  EXPECT_EQ(ToolTesting::RunOn("effects", "verify", folder_).status, ExitStatus::kOk);
  // "package compact" on the cache file goes the same way, under the mutex.
  ToolTesting::MakeCache(folder_, 40, 5000);
  const std::uint64_t full = fs::file_size(file);
  ASSERT_EQ(Run("clear").status, ExitStatus::kOk);
  const auto packaged = ToolTesting::RunOn("package", "compact", file);
  ASSERT_EQ(packaged.status, ExitStatus::kOk) << packaged.err;
  EXPECT_LT(fs::file_size(file), full);
  EXPECT_TRUE(Names().empty());
  EXPECT_EQ(ToolTesting::RunOn("effects", "compact", dir_.Path() / "nothing-here").status, ExitStatus::kUnreadable);
}

TEST_F(MaintenanceCommandsTest, UsageErrorsAndMissingCachesAreRefused) {
  EXPECT_EQ(Run("trim").status, ExitStatus::kUsage);
  EXPECT_EQ(Run("trim", {"--max-size", "lots"}).status, ExitStatus::kUsage);
  EXPECT_EQ(Run("trim", {"--older-than", "3"}).status, ExitStatus::kUsage);
  EXPECT_EQ(Run("remove").status, ExitStatus::kUsage);
  const auto missing = ToolTesting::RunOn("effects", "clear", dir_.Path() / "nothing-here");
  EXPECT_EQ(missing.status, ExitStatus::kUnreadable);
  EXPECT_FALSE(fs::exists(dir_.Path() / "nothing-here"));
  EXPECT_EQ(Names().size(), 6u);
}

}  // namespace
}  // namespace Tool
}  // namespace Tovrel

namespace Tovrel {
namespace Tool {
namespace {

TEST(MaintenanceCommandsDamageTest, EveryCommandRefusesADamagedFileWithExitStatus2AndChangesNothing) {
  Testing::TempDir dir;
  const fs::path folder = dir.Path() / "cache";
  ToolTesting::MakeCache(folder, 6, 3000);
  const std::wstring file = WideText::FromUtf8(ToolTesting::Utf8(folder / "norvaneFxoCache.dat"));
  EffectTesting::PatchRecord(file, "fx/2", [](EffectRecord& r) { r.streamId += 100000; });
  const std::vector<std::uint8_t> before = Testing::TempDir::ReadAll(file);
  const std::vector<std::pair<std::string, std::vector<std::string>>> commands = {
      {"compact", {}}, {"trim", {"--max-size", "1"}}, {"clear", {}}, {"remove", {"fx/1"}}, {"stats", {"--zero"}}};
  for (const auto& command : commands) {
    const auto result = ToolTesting::RunOn("effects", command.first, folder, command.second);
    EXPECT_EQ(result.status, ExitStatus::kUnreadable) << command.first << ": " << result.err;
    EXPECT_TRUE(ToolTesting::Contains(result.err, "the cache file is damaged, so nothing was changed"))
        << command.first << ": " << result.err;
    EXPECT_EQ(Testing::TempDir::ReadAll(file), before) << command.first;
  }
  const auto verify = ToolTesting::RunOn("effects", "verify", folder, {});
  EXPECT_EQ(verify.status, ExitStatus::kFailed);
  EXPECT_TRUE(ToolTesting::Contains(verify.out, "belongs to no effect")) << verify.out;
}

}  // namespace
}  // namespace Tool
}  // namespace Tovrel
