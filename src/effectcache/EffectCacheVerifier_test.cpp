#include "effectcache/EffectCacheVerifier.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "effectcache/EffectCacheReader.h"
#include "support/EffectTesting.h"
#include "support/PackagePatch.h"
#include "support/TempDir.h"
#include "tovrel/EffectCacheSystem.h"
#include "tovrel/FilePackage.h"

namespace Tovrel {
namespace {

using Testing::EffectTesting;

class EffectCacheVerifierTest : public ::testing::Test {
 protected:
  void Fill(int n) {
    RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(Folder()));
    for (int i = 0; i < n; ++i) {
      const auto bytes = EffectTesting::Bytes(static_cast<std::uint32_t>(i + 1), 3000 + i * 700, true);
      ASSERT_TRUE(cache->CacheCompiledEffect(WStr(Name(i).c_str()), bytes.data(), bytes.size(), false));
    }
    cache->ForceSaveToFile();
  }
  static std::wstring Name(int i) { return L"fx/" + std::to_wstring(i); }
  WStr Folder() const { return WStr(dir_.Path().wstring().c_str()); }
  std::wstring CacheFile() const { return dir_.File("norvaneFxoCache.dat"); }

  Testing::TempDir dir_;
};

TEST_F(EffectCacheVerifierTest, ASoundCacheHasNoProblemAndEveryEffectIsCounted) {
  Fill(6);
  std::vector<std::uint64_t> told;
  const auto report = EffectCacheVerifier::VerifyFolder(
      Folder(), [&told](std::uint64_t done, std::uint64_t total) { told.push_back(done * 100 + total); });
  EXPECT_EQ(report.outcome, EffectCacheVerifier::Outcome::kChecked);
  EXPECT_TRUE(report.problems.empty()) << report.problems.front();
  EXPECT_EQ(report.effects, 6u);
  EXPECT_EQ(told, (std::vector<std::uint64_t>{106, 206, 306, 406, 506, 606}));
}

TEST_F(EffectCacheVerifierTest, AnEffectWhoseBytesChangedIsNamed) {
  Fill(4);
  EffectTesting::DamageEffectBytes(CacheFile(), "fx/2");
  const auto report = EffectCacheVerifier::VerifyFolder(Folder());
  ASSERT_EQ(report.outcome, EffectCacheVerifier::Outcome::kChecked);
  ASSERT_EQ(report.problems.size(), 1u);
  EXPECT_EQ(report.problems[0].rfind("effect fx/2: ", 0), 0u) << report.problems[0];
}

TEST_F(EffectCacheVerifierTest, AStreamOfNoEffectAndAnIndexEntryNamedTwiceAreProblems) {
  Fill(3);
  {
    const std::wstring file = CacheFile();
    const PagedFilePackageConfig config{file.c_str(), 16, 65535};
    RefPtr<IDataStreamSet> package = OpenFilePackage(config);
    ASSERT_TRUE(package);
    ASSERT_NE(package->CreateStream(100), IDataStreamSet::kNoStream);
    ASSERT_TRUE(package->Save());
  }
  const auto report = EffectCacheVerifier::VerifyFolder(Folder());
  ASSERT_EQ(report.outcome, EffectCacheVerifier::Outcome::kChecked);
  ASSERT_EQ(report.problems.size(), 1u);
  EXPECT_NE(report.problems[0].find("belongs to no effect"), std::string::npos) << report.problems[0];

  EffectCacheVerifier::Entries entries(2);
  entries[0].name = entries[1].name = "twice";
  entries[0].record.streamId = entries[1].record.streamId = 7;
  std::vector<std::string> problems;
  EffectCacheReader reader(Folder());
  ASSERT_TRUE(reader.Ok());
  EffectCacheVerifier::CheckIndex(reader.Package(), reader.Header().indexStreamId, entries, problems);
  ASSERT_GE(problems.size(), 2u);
  EXPECT_EQ(problems[0], "effect twice: named twice in the index");
  EXPECT_EQ(problems[1], "effects twice and twice share stream 7");
}

TEST_F(EffectCacheVerifierTest, ThePackagesOwnProblemsAreFoundToo) {
  Fill(3);
  Testing::PackagePatch patch{std::filesystem::path(CacheFile())};
  const std::uint64_t free = patch.ChildFile(0, Testing::PackagePatch::kChildFreeBytes);
  patch.Set(patch.ChildFile(0, Testing::PackagePatch::kChildFreeBytes), free - 10).Save();
  const auto report = EffectCacheVerifier::VerifyFolder(Folder());
  ASSERT_EQ(report.outcome, EffectCacheVerifier::Outcome::kChecked);
  ASSERT_FALSE(report.problems.empty());
  EXPECT_EQ(report.problems[0].rfind("child file 0: ", 0), 0u) << report.problems[0];
}

TEST_F(EffectCacheVerifierTest, AFolderWithoutACacheOrWithAForeignFileIsNotChecked) {
  EXPECT_EQ(EffectCacheVerifier::VerifyFolder(Folder()).outcome, EffectCacheVerifier::Outcome::kNoFile);
  EXPECT_EQ(EffectCacheReader(Folder()).Why(), EffectCacheReader::Failure::kNoFile);
  std::ofstream(dir_.Path() / "norvaneFxoCache.dat", std::ios::binary) << std::string(20000, 'g');
  EXPECT_EQ(EffectCacheVerifier::VerifyFolder(Folder()).outcome, EffectCacheVerifier::Outcome::kNotACache);
  EXPECT_EQ(EffectCacheReader(Folder()).Why(), EffectCacheReader::Failure::kNotACache);
}

}  // namespace
}  // namespace Tovrel
