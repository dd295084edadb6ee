#include "SalvageCommand.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <filesystem>
#include <string>
#include <vector>

#include "ExitStatus.h"
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

class SalvageCommandTest : public testing::Test {
 protected:
  void SetUp() override { ToolTesting::MakeCache(folder_, 8, 2500); }

  ToolTesting::Result Run(const std::vector<std::string>& more = {}) const {
    return ToolTesting::RunOn("effects", "salvage", folder_, more);
  }
  fs::path CacheFile() const { return folder_ / "norvaneFxoCache.dat"; }
  fs::path Copy() const { return folder_ / "norvaneFxoCache.dat-damaged"; }
  std::wstring Wide() const { return WideText::FromUtf8(ToolTesting::Utf8(CacheFile())); }
  std::vector<std::string> Order() const { return EffectTesting::IndexNames(Wide()); }
  // Makes every entry of the index from `position` on unreadable.
  void BreakIndexAt(std::size_t position) const {
    EffectTesting::PatchRecord(Wide(), Order().at(position), [](EffectRecord& r) { r.nameLength = 0; });
  }
  std::size_t Listed() const {
    const ToolTesting::Result list = ToolTesting::RunOn("effects", "list", folder_, {"--json"});
    return nlohmann::json::parse(list.out).size();
  }

  TempDir dir_;
  fs::path folder_ = dir_.Path() / "fxcache";
};

TEST_F(SalvageCommandTest, ASoundFileIsLeftAsItIs) {
  const std::vector<std::uint8_t> before = ToolTesting::ReadFile(CacheFile());
  const ToolTesting::Result result = Run();
  EXPECT_EQ(result.status, ExitStatus::kOk) << result.err;
  EXPECT_TRUE(ToolTesting::Contains(result.out, "passed every check (8 effects); nothing to salvage")) << result.out;
  EXPECT_EQ(ToolTesting::ReadFile(CacheFile()), before);
  EXPECT_FALSE(fs::exists(Copy()));
}

TEST_F(SalvageCommandTest, AnEffectThatDoesNotReadBackIsDroppedAndTheRestKept) {
  const std::string damaged = Order().at(2);
  EffectTesting::DamageEffectBytes(Wide(), damaged);
  const std::vector<std::uint8_t> before = ToolTesting::ReadFile(CacheFile());
  const ToolTesting::Result result = Run();
  EXPECT_EQ(result.status, ExitStatus::kFailed) << result.err;
  EXPECT_TRUE(ToolTesting::Contains(result.out, "kept 7 of 8 effects read")) << result.out;
  EXPECT_TRUE(ToolTesting::Contains(result.out, "dropped  " + damaged + "\n")) << result.out;
  EXPECT_TRUE(ToolTesting::Contains(result.out, "norvaneFxoCache.dat-damaged")) << result.out;
  EXPECT_EQ(ToolTesting::ReadFile(Copy()), before);
  EXPECT_EQ(ToolTesting::RunOn("effects", "verify", folder_).status, ExitStatus::kOk);
  EXPECT_EQ(Listed(), 7u);
}

TEST_F(SalvageCommandTest, AFileThatDoesNotLoadGivesBackTheEntriesThatCanBeRead) {
  BreakIndexAt(5);
  const nlohmann::json json = nlohmann::json::parse(Run({"--json"}).out);
  EXPECT_EQ(json.at("needed"), true);
  EXPECT_EQ(json.at("replacedEmpty"), false);
  EXPECT_EQ(json.at("recordedEffects"), 8);
  EXPECT_EQ(json.at("readEntries"), 5);
  EXPECT_EQ(json.at("keptEffects"), 5);
  EXPECT_TRUE(json.at("dropped").empty());
  EXPECT_TRUE(json.at("damagedCopy").is_string());
  EXPECT_EQ(Listed(), 5u);
  for (int i = 0; i < 5; ++i) {
    const std::string name = Order().at(static_cast<std::size_t>(i));
    const ToolTesting::Result got = ToolTesting::RunOn("effects", "get", folder_, {name, "--force"});
    EXPECT_EQ(got.status, ExitStatus::kOk) << name;
  }
  // Salvaged once: the new file is sound, and the copy is never salvaged.
  EXPECT_EQ(Run().status, ExitStatus::kOk);
}

TEST_F(SalvageCommandTest, AHeaderThatFailsItsChecksLeavesNothingToSalvage) {
  EffectTesting::PatchHeader(Wide(), [](EffectCacheHeader& h) { h.version = 9; });
  const ToolTesting::Result result = Run();
  EXPECT_EQ(result.status, ExitStatus::kFailed) << result.err;
  EXPECT_TRUE(ToolTesting::Contains(result.out, "replaced by an empty cache")) << result.out;
  EXPECT_FALSE(fs::exists(Copy()));
  EXPECT_EQ(Listed(), 0u);
}

TEST_F(SalvageCommandTest, AFolderWithoutACacheIsRefused) {
  const fs::path empty = dir_.Path() / "empty";
  fs::create_directories(empty);
  EXPECT_EQ(ToolTesting::RunOn("effects", "salvage", empty).status, ExitStatus::kUnreadable);
  const ToolTesting::Result missing = ToolTesting::RunOn("effects", "salvage", dir_.Path() / "missing");
  EXPECT_EQ(missing.status, ExitStatus::kUnreadable);
  EXPECT_TRUE(ToolTesting::Contains(missing.err, "no such folder")) << missing.err;
}

}  // namespace
}  // namespace Tool
}  // namespace Tovrel
