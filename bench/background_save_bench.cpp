// Background saving: the caching phase of a host (the first 3,000 effects
// of the effect workload, 2 KiB to 64 KiB, cached one after another into a
// new cache, then saved) with background saving off and on. For each: the
// latency of one CacheCompiledEffect call (p50, p99, p99.9, longest), the
// calls over 16 ms (a dropped frame at 60 frames a second), and the total
// time to cache and save everything; with it on, the calls that waited for
// the memory bound are counted apart and left out of the latencies. Then
// searches during a background save: a thread searching a cache of 3,000
// stored effects, alone and while another thread caches 3,000 more with
// background saving on; the ratio of the searches' p99.9.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "EffectWorkload.h"
#include "effectcache/EffectCacheImpl.h"
#include "support/TempDir.h"

namespace Tovrel {
namespace {

using Bench::EffectWorkload;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kEffects = 3000;
constexpr double kFrameMicroseconds = 16000;

double Micros(Clock::duration d) { return std::chrono::duration<double, std::micro>(d).count(); }

double Percentile(std::vector<double> micros, double p) {
  if (micros.empty()) return 0;
  std::sort(micros.begin(), micros.end());
  const auto at = static_cast<std::size_t>(p * static_cast<double>(micros.size() - 1) + 0.5);
  return micros[std::min(at, micros.size() - 1)];
}

std::unique_ptr<EffectCacheImpl> Open(const std::wstring& folder, bool background) {
  std::unique_ptr<EffectCacheImpl> cache(
      new EffectCacheImpl(WStr(folder.c_str()), EffectCacheImpl::kHostCompressionLevel));
  cache->SetBackgroundSaving(background);
  if (!cache->IsEnabled()) std::abort();
  return cache;
}

struct Caching {
  std::vector<double> micros;  // calls that did not wait for the bound
  std::uint64_t boundWaits = 0;
  double totalMilliseconds = 0;
};

// Caches effects [first, first + kEffects) of the workload; with `save`,
// saves and ends the cache too, inside the total time.
Caching CacheAll(EffectCacheImpl& cache, std::size_t first) {
  const EffectWorkload& w = EffectWorkload::Get();
  Caching result;
  result.micros.reserve(kEffects);
  for (std::size_t i = first; i < first + kEffects; ++i) {
    const std::uint64_t waitsBefore = cache.GetBoundWaits();
    const auto start = Clock::now();
    if (!cache.CacheCompiledEffect(WStr(w.names[i].c_str()), w.effects[i].data(), w.effects[i].size(), false)) {
      std::abort();
    }
    const double took = Micros(Clock::now() - start);
    if (cache.GetBoundWaits() != waitsBefore) {
      ++result.boundWaits;
    } else {
      result.micros.push_back(took);
    }
  }
  return result;
}

Caching CachingPhase(bool background) {
  Testing::TempDir dir;
  const auto start = Clock::now();
  auto cache = Open(dir.Path().wstring(), background);
  Caching result = CacheAll(*cache, 0);
  cache->ForceSaveToFile();
  if (cache->GetNumberOfEffectsInFile() != kEffects) std::abort();
  cache.reset();
  result.totalMilliseconds = Micros(Clock::now() - start) / 1000;
  return result;
}

void Report(benchmark::State& state, const std::string& name, const Caching& phase) {
  state.counters[name + "_p50_us"] = Percentile(phase.micros, 0.50);
  state.counters[name + "_p99_us"] = Percentile(phase.micros, 0.99);
  state.counters[name + "_p999_us"] = Percentile(phase.micros, 0.999);
  state.counters[name + "_longest_us"] = Percentile(phase.micros, 1.0);
  state.counters[name + "_over_16ms"] = static_cast<double>(
      std::count_if(phase.micros.begin(), phase.micros.end(), [](double us) { return us > kFrameMicroseconds; }));
  state.counters[name + "_bound_waits"] = static_cast<double>(phase.boundWaits);
  state.counters[name + "_total_ms"] = phase.totalMilliseconds;
}

void BM_CachingPhase(benchmark::State& state) {
  for (auto _ : state) {
    const Caching off = CachingPhase(false);
    const Caching on = CachingPhase(true);
    state.SetIterationTime((off.totalMilliseconds + on.totalMilliseconds) / 1000);
    Report(state, "off", off);
    Report(state, "on", on);
    state.counters["total_on_vs_off"] = on.totalMilliseconds / off.totalMilliseconds;
    state.counters["p999_on_vs_off"] = Percentile(on.micros, 0.999) / Percentile(off.micros, 0.999);
  }
}
BENCHMARK(BM_CachingPhase)->UseManualTime()->Iterations(1)->Repetitions(5)->Unit(benchmark::kMillisecond);

// Searches every stored name, in a seeded order, until `stop` (and at
// least once); each search's microseconds.
std::vector<double> SearchUntil(EffectCacheImpl& cache, const std::atomic<bool>& stop, std::uint32_t seed) {
  const EffectWorkload& w = EffectWorkload::Get();
  std::vector<std::size_t> order(kEffects);
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::mt19937 random(seed);
  std::vector<double> micros;
  Tab<unsigned char> data;
  do {
    std::shuffle(order.begin(), order.end(), random);
    for (std::size_t i : order) {
      const auto start = Clock::now();
      const bool found = cache.SearchCachedEffects(WStr(w.names[i].c_str()), data);
      micros.push_back(Micros(Clock::now() - start));
      if (!found || static_cast<std::size_t>(data.Count()) != w.effects[i].size()) std::abort();
      if (stop && micros.size() >= kEffects) break;
    }
  } while (!stop);
  return micros;
}

void BM_SearchesDuringABackgroundSave(benchmark::State& state) {
  Testing::TempDir dir;
  const std::wstring folder = dir.Path().wstring();
  {
    auto cache = Open(folder, false);
    CacheAll(*cache, 0);
  }
  for (auto _ : state) {
    auto cache = Open(folder, true);
    std::atomic<bool> stop{false};
    const auto start = Clock::now();
    // Alone: as many searches as the saving phase below will make, about.
    std::thread quiet([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(1500));
      stop = true;
    });
    const std::vector<double> alone = SearchUntil(*cache, stop, 1);
    quiet.join();
    stop = false;
    std::thread host([&] {
      CacheAll(*cache, kEffects);
      cache->ForceSaveToFile();
      stop = true;
    });
    const std::vector<double> saving = SearchUntil(*cache, stop, 2);
    host.join();
    state.SetIterationTime(Micros(Clock::now() - start) / 1e6);
    state.counters["alone_p50_us"] = Percentile(alone, 0.50);
    state.counters["alone_p999_us"] = Percentile(alone, 0.999);
    state.counters["alone_longest_us"] = Percentile(alone, 1.0);
    state.counters["saving_p50_us"] = Percentile(saving, 0.50);
    state.counters["saving_p999_us"] = Percentile(saving, 0.999);
    state.counters["saving_longest_us"] = Percentile(saving, 1.0);
    state.counters["saving_searches"] = static_cast<double>(saving.size());
    state.counters["saves"] = static_cast<double>(cache->GetBackgroundSaves());
    state.counters["p999_saving_vs_alone"] = Percentile(saving, 0.999) / Percentile(alone, 0.999);
  }
}
BENCHMARK(BM_SearchesDuringABackgroundSave)
    ->UseManualTime()
    ->Iterations(1)
    ->Repetitions(5)
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace Tovrel

BENCHMARK_MAIN();
