// Transient trouble loses nothing a completed save stored and leaks no
// open handle: one file call failing with EIO or EMFILE, or one allocation
// failing, anywhere in two host objects' rounds of caching, searching and
// saving on one folder, then more saves by them and by a third object with
// the trouble gone.
// CI runs a spread sample of the points; TOVREL_CRASH_EXHAUSTIVE=1 runs
// every one (tools/crash.sh).
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "effectcache/EffectCacheImpl.h"
#include "platform/FileFaults.h"
#include "support/AllocationFaults.h"
#include "support/CrashRunner.h"
#include "support/EffectTesting.h"
#include "support/EffectFaultWorkload.h"
#include "support/InstalledFileSystem.h"
#include "support/OpenHandles.h"
#include "support/TempDir.h"

namespace Tovrel {
namespace {

using Testing::CrashRunner;
using Testing::EffectFaultWorkload;
using Testing::EffectTesting;

class EffectCacheTransientFaultsTest : public ::testing::Test {
 protected:
  void SetUp() override { EffectCacheImpl::SetOpenRetryInterval(0); }
  void TearDown() override {
    FileFaults::Reset();
    EffectCacheImpl::SetOpenRetryInterval(EffectCacheImpl::kOpenRetryMilliseconds);
  }

  std::wstring Folder(const std::string& name) {
    const std::filesystem::path folder = dir_.Path() / name;
    std::filesystem::create_directories(folder);
    return folder.wstring();
  }

  // Runs the workload once unharmed, then with the fault at each sampled
  // point; every run must keep what completed saves stored.
  void Sweep(EffectFaultWorkload::Fault fault, int error, std::uint32_t seed, std::size_t sample) {
    // Allocations run on the system's own file system: the in-memory one
    // allocates for every write, which the system's never does.
    const bool inMemory = fault != EffectFaultWorkload::Fault::kAllocation;
    std::uint64_t points = 0;
    {
      std::unique_ptr<Testing::InstalledFileSystem> files(inMemory ? new Testing::InstalledFileSystem : nullptr);
      EffectFaultWorkload reference(Folder("fxref"), seed);
      ASSERT_EQ(reference.Run(EffectFaultWorkload::Fault::kNone, 0, 0), "");
      points = fault == EffectFaultWorkload::Fault::kFileCall ? reference.FileCalls() : reference.Allocations();
    }
    ASSERT_GT(points, 100u);
    const std::vector<std::uint64_t> chosen = CrashRunner::Points(points, sample, seed);
    const std::string kind = fault == EffectFaultWorkload::Fault::kFileCall ? "file_calls" : "allocations";
    ::testing::Test::RecordProperty("seed" + std::to_string(seed) + "_" + kind, std::to_string(points));
    ::testing::Test::RecordProperty("seed" + std::to_string(seed) + "_fault_points", std::to_string(chosen.size()));
    int failures = 0;
    for (std::uint64_t n : chosen) {
      const std::size_t handles = Testing::OpenHandles::Count();
      std::string wrong;
      {
        std::unique_ptr<Testing::InstalledFileSystem> files(inMemory ? new Testing::InstalledFileSystem : nullptr);
        EffectFaultWorkload workload(Folder("fx" + std::to_string(n)), seed);
        try {
          wrong = workload.Run(fault, n, error);
        } catch (const std::exception& e) {
          wrong = std::string("an exception left the workload: ") + e.what();
        }
      }
      // The hosts ended: whatever the fault interrupted let go of the
      // files, folders and system objects it had opened. (Fewer may be open
      // than before: an earlier point's ending threads may let theirs go
      // meanwhile.)
      if (wrong.empty() && Testing::OpenHandles::Count() > handles) {
        wrong = "open handles " + std::to_string(handles) + " before, " +
                std::to_string(Testing::OpenHandles::Count()) + " after";
      }
      EXPECT_EQ(wrong, "") << "seed " << seed << ", point " << n << " of " << points << ", errno " << error;
      if (!wrong.empty() && ++failures > 5) return;
    }
  }

  Testing::TempDir dir_;
};

TEST_F(EffectCacheTransientFaultsTest, OneFailedReadOrWriteAnywhereLosesNoStoredEffect) {
  for (std::uint32_t seed : CrashRunner::Seeds({1}, 300)) Sweep(EffectFaultWorkload::Fault::kFileCall, EIO, seed, 120);
}

TEST_F(EffectCacheTransientFaultsTest, NoDescriptorAtAnyCallLosesNoStoredEffect) {
  for (std::uint32_t seed : CrashRunner::Seeds({2}, 400)) {
    Sweep(EffectFaultWorkload::Fault::kFileCall, EMFILE, seed, 120);
  }
}

TEST_F(EffectCacheTransientFaultsTest, NoMemoryAtAnyAllocationLosesNoStoredEffect) {
  for (std::uint32_t seed : CrashRunner::Seeds({3}, 500)) Sweep(EffectFaultWorkload::Fault::kAllocation, 0, seed, 120);
}

// No memory while an effect is queued leaves the queue as it was: never a
// name without bytes, which a save would write as a record no load takes.
TEST_F(EffectCacheTransientFaultsTest, NoMemoryWhileCachingLeavesTheQueueAsItWas) {
  const std::wstring folder = Folder("queue");
  const std::vector<unsigned char> first = EffectTesting::Bytes(1, 5000, true);
  const std::vector<unsigned char> second = EffectTesting::Bytes(2, 7000, true);
  std::uint64_t allocations = 0;
  {
    EffectCacheImpl cache(WStr(folder.c_str()), 2);
    Testing::AllocationFaultScope scope;
    Testing::AllocationFaults::StartCounting();
    ASSERT_TRUE(cache.CacheCompiledEffect(WStr(L"fx"), first.data(), first.size(), false));
    allocations = Testing::AllocationFaults::Count();
  }
  ASSERT_GT(allocations, 0u);
  for (std::uint64_t k = 1; k <= allocations; ++k) {
    EffectCacheImpl cache(WStr(folder.c_str()), 2);
    ASSERT_TRUE(cache.CacheCompiledEffect(WStr(L"fx"), first.data(), first.size(), false));
    ASSERT_TRUE(cache.CacheCompiledEffect(WStr(L"fresh"), first.data(), first.size(), false));
    {
      Testing::AllocationFaultScope scope;
      Testing::AllocationFaults::FailNth(k);
      try {
        cache.CacheCompiledEffect(WStr(L"fx"), second.data(), second.size(), false);
        cache.CacheCompiledEffect(WStr(L"other"), second.data(), second.size(), false);
      } catch (const std::bad_alloc&) {
      }
    }
    Tab<unsigned char> data;
    ASSERT_TRUE(cache.SearchCachedEffects(WStr(L"fx"), data)) << k;
    const std::vector<unsigned char> found = EffectTesting::ToVector(data);
    EXPECT_TRUE(found == first || found == second) << k;
    cache.ForceSaveToFile();
    ASSERT_TRUE(cache.IsEnabled()) << k;
    EffectCacheImpl reader(WStr(folder.c_str()), 2);
    ASSERT_TRUE(reader.IsEnabled()) << k;
    ASSERT_TRUE(reader.SearchCachedEffects(WStr(L"fresh"), data)) << k << ": the file was replaced";
    ASSERT_TRUE(reader.SearchCachedEffects(WStr(L"fx"), data)) << k;
    EXPECT_EQ(EffectTesting::ToVector(data), found) << k;
  }
}

}  // namespace
}  // namespace Tovrel
