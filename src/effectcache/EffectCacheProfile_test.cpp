#include "effectcache/EffectCacheProfile.h"

#include <gtest/gtest.h>

#include <string>

#include "support/TempDir.h"

namespace Tovrel {
namespace {

std::string Text(const std::wstring& path) {
  const auto bytes = Testing::TempDir::ReadAll(path);
  return std::string(bytes.begin(), bytes.end());
}

TEST(EffectCacheProfileTest, TheWorkedExampleGivesItsThreeLines) {
  EffectCacheProfile profile;
  profile.AddCompression(1000, 250, 1500);
  profile.AddDecompression(20);
  EXPECT_EQ(profile.Report(),
            "Compression Rate: 25 %\n"
            "Compression Time: 1.5 seconds\n"
            "Decompression Time: 0.02 seconds\n");
}

TEST(EffectCacheProfileTest, NothingCompressedWritesOnlyTheTimeLines) {
  EffectCacheProfile profile;
  profile.AddDecompression(7);
  EXPECT_EQ(profile.Report(),
            "Compression Time: 0 seconds\n"
            "Decompression Time: 0.007 seconds\n");
}

TEST(EffectCacheProfileTest, RatesHaveSixSignificantDigits) {
  EffectCacheProfile profile;
  profile.AddCompression(3, 1, 0);
  EXPECT_EQ(profile.Report().substr(0, 28), "Compression Rate: 33.3333 %\n");
}

TEST(EffectCacheProfileTest, TwoObjectsAppendOneBlockEachToTheSameFile) {
  Testing::TempDir dir;
  const std::wstring log = dir.File("profile.log");
  Testing::TempDir::WriteAll(log, {'o', 'l', 'd', '\n'});
  EffectCacheProfile first;
  first.AddCompression(1000, 250, 1500);
  first.AppendTo(log);
  EffectCacheProfile second;
  second.AppendTo(log);
  EXPECT_EQ(Text(log), "old\n" + first.Report() + second.Report());
}

TEST(EffectCacheProfileTest, AnUnopenableLogIsSkippedSilently) {
  Testing::TempDir dir;
  EffectCacheProfile profile;
  profile.AppendTo(dir.File("missing-folder") + L"/deeper/profile.log");
  profile.AppendTo(L"");
  EXPECT_FALSE(std::filesystem::exists(dir.Path() / "missing-folder"));
}

TEST(EffectCacheProfileTest, ResetZeroesTheCounters) {
  EffectCacheProfile profile;
  profile.AddCompression(10, 5, 3);
  profile.AddDecompression(4);
  profile.Reset();
  EXPECT_EQ(profile.totalUncompressedBytes, 0u);
  EXPECT_EQ(profile.decompressionMilliseconds, 0u);
}

TEST(EffectCacheProfileTest, MillisecondCountersWrapAround) {
  EffectCacheProfile profile;
  profile.AddDecompression(0xFFFFFFFFu);
  profile.AddDecompression(2);
  EXPECT_EQ(profile.decompressionMilliseconds, 1u);
}

}  // namespace
}  // namespace Tovrel
