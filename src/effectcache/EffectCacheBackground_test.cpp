// Background saving: the host's calls go on while the worker saves, a
// search finds an effect wherever it is, the counts count it once, the
// memory bound holds, and a failed save makes the cache unusable with the
// file as its last completed save left it.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "effectcache/CacheFileLock.h"
#include "effectcache/CacheFileNames.h"
#include "effectcache/EffectCacheImpl.h"
#include "platform/FileFaults.h"
#include "support/EffectTesting.h"
#include "support/TempDir.h"

namespace Tovrel {
namespace {

using Testing::EffectTesting;

std::wstring NameOf(int i) { return L"bg/effect" + std::to_wstring(i); }

std::vector<unsigned char> BytesOf(int i) {
  return EffectTesting::Bytes(static_cast<std::uint32_t>(7000 + i), 60000 + 1000 * (i % 7), i % 3 != 0);
}

// Holds the cache file's named mutex on a thread of its own, as another
// process would, until Release: the worker's save waits for it meanwhile.
class MutexHeldElsewhere {
 public:
  explicit MutexHeldElsewhere(const std::wstring& cacheFile) {
    std::unique_lock<std::mutex> held(lock_);
    thread_ = std::thread([this, cacheFile] {
      CacheFileLock lock(cacheFile);
      CacheFileLock::Hold hold(lock);
      std::unique_lock<std::mutex> inner(lock_);
      holding_ = true;
      changed_.notify_all();
      changed_.wait(inner, [this] { return released_; });
    });
    changed_.wait(held, [this] { return holding_; });
  }
  ~MutexHeldElsewhere() { Release(); }
  void Release() {
    {
      std::lock_guard<std::mutex> held(lock_);
      released_ = true;
    }
    changed_.notify_all();
    if (thread_.joinable()) thread_.join();
  }

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  bool holding_ = false;
  bool released_ = false;
  std::thread thread_;
};

// A point the worker's save stops at (a FileFaults pause) until Open.
class Gate {
 public:
  void Stop() {
    std::unique_lock<std::mutex> held(lock_);
    reached_ = true;
    changed_.notify_all();
    changed_.wait(held, [this] { return open_; });
  }
  bool WaitReached(std::chrono::seconds limit) {
    std::unique_lock<std::mutex> held(lock_);
    return changed_.wait_for(held, limit, [this] { return reached_; });
  }
  void Open() {
    std::lock_guard<std::mutex> held(lock_);
    open_ = true;
    changed_.notify_all();
  }

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  bool reached_ = false;
  bool open_ = false;
};

class EffectCacheBackgroundTest : public ::testing::Test {
 protected:
  void TearDown() override { FileFaults::Reset(); }

  std::unique_ptr<EffectCacheImpl> Open() {
    std::unique_ptr<EffectCacheImpl> cache(new EffectCacheImpl(WStr(dir_.Path().wstring().c_str()), 2));
    cache->SetBackgroundSaving(true);
    return cache;
  }
  // Caches effects 0..count-1; their bytes pass 2 MiB from about the 34th.
  static void CacheEffects(EffectCacheImpl& cache, int from, int count) {
    for (int i = from; i < from + count; ++i) {
      const auto bytes = BytesOf(i);
      ASSERT_TRUE(cache.CacheCompiledEffect(WStr(NameOf(i).c_str()), bytes.data(), bytes.size(), false)) << i;
    }
  }
  static void ExpectFound(EffectCacheImpl& cache, int from, int count) {
    for (int i = from; i < from + count; ++i) {
      Tab<unsigned char> data;
      ASSERT_TRUE(cache.SearchCachedEffects(WStr(NameOf(i).c_str()), data)) << i;
      EXPECT_EQ(EffectTesting::ToVector(data), BytesOf(i)) << i;
    }
  }
  std::wstring CacheFile() const { return CacheFileNames::CacheFilePathFor(WStr(dir_.Path().wstring().c_str())).data(); }

  Testing::TempDir dir_;
};

TEST_F(EffectCacheBackgroundTest, CachingGoesOnWhileTheSaveWaitsAndEveryEffectIsFoundWhereverItIs) {
  auto cache = Open();
  ASSERT_TRUE(cache->IsEnabled());
  {
    // The worker's save cannot have the file: the host's calls do not wait.
    MutexHeldElsewhere other(CacheFile());
    CacheEffects(*cache, 0, 80);
    EXPECT_EQ(cache->GetNumberOfEffectsInFile(), 0u);
    EXPECT_EQ(cache->GetNumberOfEffectsInMemory(), 80u);
    // Waiting or in the save that waits for the mutex: found all the same.
    ExpectFound(*cache, 0, 80);
  }
  cache->ForceSaveToFile();
  EXPECT_EQ(cache->GetNumberOfEffectsInFile(), 80u);
  EXPECT_EQ(cache->GetNumberOfEffectsInMemory(), 0u);
  EXPECT_EQ(cache->GetPendingBytes(), 0u);
  EXPECT_GE(cache->GetBackgroundSaves(), 1u);
  ExpectFound(*cache, 0, 80);
  cache.reset();
  auto reader = Open();
  EXPECT_EQ(reader->GetNumberOfEffectsInFile(), 80u);
  ExpectFound(*reader, 0, 80);
}

TEST_F(EffectCacheBackgroundTest, TheCountsCountEachEffectOnceWhileSavesRun) {
  auto cache = Open();
  std::atomic<bool> done{false};
  std::atomic<int> cached{0};
  std::atomic<int> wrong{0};
  std::thread watcher([&] {
    // No effect is in neither place nor in both: at any moment the two
    // counts add up to at least the effects cached so far (all names are
    // new), and never to more than were cached in all.
    while (!done) {
      const int before = cached.load();
      std::size_t memory = 0;
      std::size_t file = 0;
      cache->CountEffects(&memory, &file);
      if (memory + file < static_cast<std::size_t>(before) || memory + file > 120) ++wrong;
    }
  });
  for (int i = 0; i < 120; ++i) {
    CacheEffects(*cache, i, 1);
    ++cached;
  }
  cache->ForceSaveToFile();
  done = true;
  watcher.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(cache->GetNumberOfEffectsInFile(), 120u);
  EXPECT_EQ(cache->GetNumberOfEffectsInMemory(), 0u);
  EXPECT_GE(cache->GetBackgroundSaves(), 2u) << "120 effects of about 60 KiB pass 2 MiB several times";
}

TEST_F(EffectCacheBackgroundTest, PastTheBoundACallWaitsForTheSaveUnderWay) {
  auto cache = Open();
  cache->SetBackgroundBytesBound(3 << 20);
  std::atomic<bool> finished{false};
  std::unique_ptr<std::thread> host;
  {
    MutexHeldElsewhere other(CacheFile());
    host.reset(new std::thread([&] {
      CacheEffects(*cache, 0, 80);  // about 5 MiB: past the bound while the save waits
      finished = true;
    }));
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (cache->GetBoundWaits() == 0 && std::chrono::steady_clock::now() < until) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(cache->GetBoundWaits(), 1u);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(finished.load()) << "a call went on past the bound while the save could not end";
    // The worker waits for the other holder without the cache's lock: the
    // counts answer meanwhile, and show the bound kept (to one effect).
    EXPECT_LE(cache->GetPendingBytes(), (3u << 20) + 70000);
    EXPECT_EQ(cache->GetNumberOfEffectsInFile(), 0u);
  }
  host->join();
  EXPECT_TRUE(finished.load());
  cache->ForceSaveToFile();
  EXPECT_EQ(cache->GetNumberOfEffectsInFile(), 80u);
  ExpectFound(*cache, 0, 80);
}

TEST_F(EffectCacheBackgroundTest, AFailedBackgroundSaveMakesTheCacheUnusableAndTheFileKeepsItsLastSave) {
  {
    auto cache = Open();
    CacheEffects(*cache, 0, 10);
    cache->ForceSaveToFile();
    ASSERT_EQ(cache->GetNumberOfEffectsInFile(), 10u);
    FileFaults::FailNth(FileCall::kWrite, 1, 5 /* EIO */, true);
    CacheEffects(*cache, 10, 40);  // passes 2 MiB: the worker's save fails
    cache->ForceSaveToFile();
    FileFaults::Reset();
    EXPECT_FALSE(cache->IsEnabled());
    const auto bytes = BytesOf(99);
    EXPECT_FALSE(cache->CacheCompiledEffect(WStr(L"after"), bytes.data(), bytes.size(), false));
  }
  auto reader = Open();
  ASSERT_TRUE(reader->IsEnabled());
  EXPECT_EQ(reader->GetNumberOfEffectsInFile(), 10u);
  ExpectFound(*reader, 0, 10);
}

TEST_F(EffectCacheBackgroundTest, TurningItOffKeepsTheQueuedEffectsPendingAndSavesOnTheCallersThread) {
  auto cache = Open();
  {
    MutexHeldElsewhere other(CacheFile());
    CacheEffects(*cache, 0, 5);  // under 2 MiB: they wait in the queue
    EXPECT_EQ(cache->GetNumberOfEffectsInMemory(), 5u);
  }
  cache->SetBackgroundSaving(false);
  EXPECT_FALSE(cache->IsBackgroundSaving());
  EXPECT_EQ(cache->GetNumberOfEffectsInMemory(), 5u);
  EXPECT_EQ(cache->GetNumberOfEffectsInFile(), 0u);
  CacheEffects(*cache, 5, 40);  // the save that 2 MiB start runs here, now
  EXPECT_GT(cache->GetNumberOfEffectsInFile(), 0u);
  EXPECT_EQ(cache->GetBackgroundSaves(), 0u);
  cache->ForceSaveToFile();
  EXPECT_EQ(cache->GetNumberOfEffectsInFile(), 45u);
  ExpectFound(*cache, 0, 45);
}

TEST_F(EffectCacheBackgroundTest, TheLastEndSavesWhatIsStillQueued) {
  {
    auto cache = Open();
    CacheEffects(*cache, 0, 60);
  }
  auto reader = Open();
  EXPECT_EQ(reader->GetNumberOfEffectsInFile(), 60u);
  ExpectFound(*reader, 0, 60);
}

TEST_F(EffectCacheBackgroundTest, HostThreadsCacheAndSearchWhileTheWorkerSaves) {
  auto cache = Open();
  std::vector<std::thread> hosts;
  for (int t = 0; t < 3; ++t) {
    hosts.emplace_back([&, t] {
      CacheEffects(*cache, t * 40, 40);
      ExpectFound(*cache, t * 40, 40);
    });
  }
  for (std::thread& host : hosts) host.join();
  cache->ForceSaveToFile();
  EXPECT_EQ(cache->GetNumberOfEffectsInFile(), 120u);
  ExpectFound(*cache, 0, 120);
}

TEST_F(EffectCacheBackgroundTest, SearchesOfStoredEffectsGoOnWhileTheSaveHoldsTheCache) {
  auto cache = Open();
  CacheEffects(*cache, 0, 40);
  cache->ForceSaveToFile();
  // Searches found stored effects: after each save from now on, the worker
  // leaves a snapshot of the stored effects for the next one.
  ExpectFound(*cache, 0, 40);
  CacheEffects(*cache, 40, 5);
  cache->ForceSaveToFile();
  ExpectFound(*cache, 0, 45);
  FileFaults::StartCounting();
  CacheEffects(*cache, 45, 5);
  cache->ForceSaveToFile();
  const std::uint64_t syncs = FileFaults::Calls(FileCall::kSync);
  ASSERT_GE(syncs, 2u);  // the journal's, then the file's
  ExpectFound(*cache, 0, 50);
  int stored = 50;
  // The save stops before each of its syncs in turn, holding the cache's
  // lock and the file's mutex, with its writes (and, at the second, the
  // pages it overwrote) in the file: every stored effect is found, right,
  // without waiting for it.
  for (std::uint64_t n = 1; n <= syncs; ++n) {
    Gate gate;
    FileFaults::PauseAtNth(FileCall::kSync, n, [&gate] { gate.Stop(); });
    std::thread saver([&] {
      CacheEffects(*cache, stored, 5);
      cache->ForceSaveToFile();
    });
    if (!gate.WaitReached(std::chrono::seconds(60))) {
      ADD_FAILURE() << "the save never reached sync " << n;
      gate.Open();
      saver.join();
      return;
    }
    std::mutex doneLock;
    std::condition_variable doneChanged;
    bool done = false;
    std::thread searcher([&] {
      ExpectFound(*cache, 0, stored);
      std::lock_guard<std::mutex> held(doneLock);
      done = true;
      doneChanged.notify_all();
    });
    {
      std::unique_lock<std::mutex> held(doneLock);
      EXPECT_TRUE(doneChanged.wait_for(held, std::chrono::seconds(30), [&] { return done; }))
          << "the searches waited for the save stopped before sync " << n;
    }
    gate.Open();
    searcher.join();
    saver.join();
    stored += 5;
    ExpectFound(*cache, 0, stored);
  }
  EXPECT_EQ(cache->GetNumberOfEffectsInFile(), static_cast<std::size_t>(stored));
}

}  // namespace
}  // namespace Tovrel
