// Only a file proven damaged or foreign is replaced: a failed file call, a
// missing descriptor or no memory while a cache opens its file leaves the
// file exactly as it was, and the cache opens it once the trouble is gone.
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "effectcache/EffectCacheImpl.h"
#include "platform/FileFaults.h"
#include "support/AllocationFaults.h"
#include "support/EffectTesting.h"
#include "support/TempDir.h"

namespace Tovrel {
namespace {

using Testing::AllocationFaults;
using Testing::EffectTesting;
using Testing::TempDir;

constexpr int kEffects = 10;

std::wstring NameOf(int i) { return L"permanent/" + std::to_wstring(i); }
std::vector<unsigned char> BytesOf(int i) {
  return EffectTesting::Bytes(static_cast<std::uint32_t>(7 + i), 3000 + 2500 * static_cast<std::size_t>(i), true);
}

class EffectCacheOpenFaultsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    EffectCacheImpl::SetOpenRetryInterval(0);
    EffectCacheImpl made(WStr(folder_.c_str()), 2);
    for (int i = 0; i < kEffects; ++i) {
      const std::vector<unsigned char> bytes = BytesOf(i);
      ASSERT_TRUE(made.CacheCompiledEffect(WStr(NameOf(i).c_str()), bytes.data(), bytes.size(), true));
    }
    made.ForceSaveToFile();
    ASSERT_EQ(made.GetNumberOfEffectsInFile(), static_cast<std::size_t>(kEffects));
  }
  void TearDown() override {
    FileFaults::Reset();
    EffectCacheImpl::SetOpenRetryInterval(EffectCacheImpl::kOpenRetryMilliseconds);
  }

  std::unique_ptr<EffectCacheImpl> Open() {
    return std::unique_ptr<EffectCacheImpl>(new EffectCacheImpl(WStr(folder_.c_str()), 2));
  }
  static void ExpectEveryEffect(EffectCacheImpl& cache, const std::string& context) {
    ASSERT_TRUE(cache.IsEnabled()) << context;
    for (int i = 0; i < kEffects; ++i) {
      Tab<unsigned char> data;
      ASSERT_TRUE(cache.SearchCachedEffects(WStr(NameOf(i).c_str()), data)) << context << ", effect " << i;
      EXPECT_EQ(EffectTesting::ToVector(data), BytesOf(i)) << context << ", effect " << i;
    }
  }
  // Fails the nth file call of an opening with `error`; the file must be
  // byte-identical afterwards, and every effect found once the fault is gone.
  void OpenWithFault(std::uint64_t n, int error) {
    const std::string context = "call " + std::to_string(n) + ", errno " + std::to_string(error);
    const std::vector<std::uint8_t> before = TempDir::ReadAll(CacheFile());
    FileFaults::FailNth(FileCall::kAny, n, error);
    auto cache = Open();
    const bool failed = FileFaults::LastFailed() != FileCall::kAny;
    FileFaults::Reset();
    EXPECT_EQ(TempDir::ReadAll(CacheFile()), before) << context << (failed ? " (failed)" : "");
    ExpectEveryEffect(*cache, context);
    cache.reset();
    EXPECT_EQ(TempDir::ReadAll(CacheFile()), before) << context;
  }
  std::wstring CacheFile() const { return dir_.File("norvaneFxoCache.dat"); }

  TempDir dir_;
  std::wstring folder_ = dir_.Path().wstring();
};

TEST_F(EffectCacheOpenFaultsTest, OneFailedCallAnywhereInAnOpeningLeavesTheFileAsItWas) {
  FileFaults::StartCounting();
  { auto cache = Open(); }
  const std::uint64_t calls = FileFaults::Calls(FileCall::kAny);
  FileFaults::Reset();
  ASSERT_GT(calls, 5u);
  for (std::uint64_t n = 1; n <= calls; ++n) {
    OpenWithFault(n, EIO);
    if (HasFatalFailure()) return;
  }
}

TEST_F(EffectCacheOpenFaultsTest, NoDescriptorAnywhereInAnOpeningLeavesTheFileAsItWas) {
  FileFaults::StartCounting();
  { auto cache = Open(); }
  const std::uint64_t calls = FileFaults::Calls(FileCall::kAny);
  FileFaults::Reset();
  for (std::uint64_t n = 1; n <= calls; ++n) {
    OpenWithFault(n, EMFILE);
    if (HasFatalFailure()) return;
  }
}

TEST_F(EffectCacheOpenFaultsTest, AFirstReadThatFailsNeitherEmptiesTheCacheNorDisablesItForGood) {
  const std::vector<std::uint8_t> before = TempDir::ReadAll(CacheFile());
  FileFaults::FailNth(FileCall::kRead, 1, EIO);
  auto cache = Open();
  EXPECT_EQ(FileFaults::LastFailed(), FileCall::kRead);
  FileFaults::Reset();
  EXPECT_EQ(TempDir::ReadAll(CacheFile()), before);
  EXPECT_EQ(cache->GetNumberOfEffectsInFile(), 0u);  // not open yet
  ExpectEveryEffect(*cache, "after the retry");
  EXPECT_EQ(cache->GetNumberOfEffectsInFile(), static_cast<std::size_t>(kEffects));
}

TEST_F(EffectCacheOpenFaultsTest, AnOpeningThatIsRefusedWaitsBeforeItTriesAgain) {
  EffectCacheImpl::SetOpenRetryInterval(60000);
  FileFaults::FailNth(FileCall::kRead, 1, EIO);
  auto cache = Open();
  FileFaults::Reset();
  EXPECT_FALSE(cache->IsEnabled());  // the next try is a minute away
  Tab<unsigned char> data;
  EXPECT_FALSE(cache->SearchCachedEffects(WStr(NameOf(0).c_str()), data));
  EffectCacheImpl::SetOpenRetryInterval(0);
  ExpectEveryEffect(*cache, "once the wait is over");
}

TEST_F(EffectCacheOpenFaultsTest, NoMemoryAnywhereInAnOpeningLeavesTheFileAsItWas) {
  const std::vector<std::uint8_t> before = TempDir::ReadAll(CacheFile());
  std::uint64_t allocations = 0;
  {
    Testing::AllocationFaultScope scope;
    AllocationFaults::StartCounting();
    auto cache = Open();
    allocations = AllocationFaults::Count();
  }
  ASSERT_GT(allocations, 10u);
  for (std::uint64_t k = 1; k <= allocations; ++k) {
    std::unique_ptr<EffectCacheImpl> cache;
    {
      Testing::AllocationFaultScope scope;
      AllocationFaults::FailNth(k);
      try {
        cache = Open();
      } catch (const std::bad_alloc&) {
        // Out of memory may leave the constructor, as the host's allocations do.
      }
    }
    EXPECT_EQ(TempDir::ReadAll(CacheFile()), before) << "allocation " << k;
    if (!cache) cache = Open();
    ExpectEveryEffect(*cache, "allocation " + std::to_string(k));
    cache.reset();
    ASSERT_EQ(TempDir::ReadAll(CacheFile()), before) << "allocation " << k;
  }
}

TEST_F(EffectCacheOpenFaultsTest, AFileProvenDamagedIsStillReplaced) {
  std::vector<std::uint8_t> bytes = TempDir::ReadAll(CacheFile());
  bytes.resize(100);  // no head chain can be read from it
  TempDir::WriteAll(CacheFile(), bytes);
  auto cache = Open();
  EXPECT_TRUE(cache->IsEnabled());
  EXPECT_EQ(cache->GetNumberOfEffectsInFile(), 0u);
  EXPECT_GT(TempDir::ReadAll(CacheFile()).size(), 100u);
}

}  // namespace
}  // namespace Tovrel
