// Last-use times mean the same to every reader: they are kept in UTC, so a
// cache written under one time zone is trimmed and merged rightly under
// another.
#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "effectcache/CacheTimeStamp.h"
#include "effectcache/EffectCacheMaintenance.h"
#include "support/EffectTesting.h"
#include "support/ScopedTimeZone.h"
#include "support/TempDir.h"
#include "tovrel/EffectCacheSystem.h"

namespace Tovrel {
namespace {

using Testing::EffectTesting;
using Testing::ScopedTimeZone;
using Testing::TempDir;

WStr FolderOf(const TempDir& dir) { return WStr(dir.Path().wstring().c_str()); }

// Sets a time zone and waits for the next second, so that no clock that
// keeps the last second's answer can give one of the zone before.
class ZoneFromTheNextSecond {
 public:
  explicit ZoneFromTheNextSecond(const char* rule) : zone_(rule) {
    const std::time_t start = std::time(nullptr);
    while (std::time(nullptr) == start) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }

 private:
  ScopedTimeZone zone_;
};

void Store(const TempDir& dir, const std::vector<unsigned char>& bytes) {
  RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(FolderOf(dir)));
  ASSERT_TRUE(cache->CacheCompiledEffect(WStr(L"fx"), bytes.data(), bytes.size(), false));
  cache->ForceSaveToFile();
}

TEST(EffectCacheTimeZonesTest, NowIsTheSameUtcTimeWhateverTheTimeZone) {
  for (const char* zone : {"JST-9", "EST5EDT"}) {
    const ZoneFromTheNextSecond scoped(zone);
    const std::int64_t utc = static_cast<std::int64_t>(std::time(nullptr));
    const std::int64_t stamp = CacheTimeStamp::Now().Seconds();
    EXPECT_LE(stamp - utc, 2) << zone;
    EXPECT_GE(stamp - utc, -2) << zone;
  }
}

TEST(EffectCacheTimeZonesTest, AnEffectUsedJustNowIsNotTrimmedAsOldUnderAnotherTimeZone) {
  TempDir dir;
  {
    const ZoneFromTheNextSecond west("EST5EDT");
    Store(dir, EffectTesting::Bytes(1, 3000, true));
  }
  const ZoneFromTheNextSecond east("JST-9");
  EffectCacheMaintenance::TrimRule rule;
  rule.byAge = true;
  rule.maxAgeSeconds = 3600;
  const auto result = EffectCacheMaintenance::Trim(FolderOf(dir), rule, CacheTimeStamp::Now().Seconds(), false);
  ASSERT_TRUE(result.ok);
  EXPECT_EQ(result.removedEffects, 0u);
  EXPECT_EQ(result.keptEffects, 1u);
}

TEST(EffectCacheTimeZonesTest, AMergeKeepsTheCopyUsedLastWhateverTheZonesTheyWereWrittenIn) {
  TempDir older;
  TempDir newer;
  TempDir merged;
  const auto first = EffectTesting::Bytes(1, 3000, true);
  const auto second = EffectTesting::Bytes(2, 3000, true);
  {
    const ZoneFromTheNextSecond east("JST-9");
    Store(older, first);
  }
  {
    const ZoneFromTheNextSecond west("EST5EDT");
    Store(newer, second);
  }
  const auto result = EffectCacheMaintenance::Merge(FolderOf(merged), {FolderOf(older), FolderOf(newer)});
  ASSERT_TRUE(result.ok);
  RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(FolderOf(merged)));
  Tab<unsigned char> found;
  ASSERT_TRUE(cache->SearchCachedEffects(WStr(L"fx"), found));
  EXPECT_EQ(EffectTesting::ToVector(found), second);
}

}  // namespace
}  // namespace Tovrel
