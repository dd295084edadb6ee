// Start-up cost of a full cache: constructing an EffectCacheSystem on a
// folder whose cache holds N effects (200 bytes each, 40-character names,
// seeded), plus its first search, against reading the whole cache file
// once with fread into memory, in the same run. N = 1,000, 10,000 and the
// stream limit's 65,534; and 65,534 again with the index stream written in
// reverse name order (another writer's order: it loads with one sort). The folder is made once per N before timing; the
// file is in the system's file cache for both (a warm start, as a host that
// starts again finds it). Counters: the open's milliseconds, fread's, their
// ratio (open over fread: lower is better) and the cost per effect. The
// open is marked as the perf phase "open" (see PerfPhase).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "PerfPhase.h"
#include "StdioBaseline.h"
#include "platform/NativeFile.h"
#include "support/EffectTesting.h"
#include "support/TempDir.h"
#include "tovrel/tovrel.h"

namespace Tovrel {
namespace {

using Bench::Clock;
using Bench::Seconds;

constexpr std::size_t kEffectBytes = 200;
constexpr std::size_t kNameChars = 40;

// The n-th name: 40 characters, a shared folder-like prefix and a number.
std::wstring NameOf(std::size_t n) {
  std::wstring name = L"shaders/materials/standard/pass-" + std::to_wstring(n * 7919 % 1000003);
  name.resize(kNameChars, L'x');
  return name;
}

// A folder holding a cache of `count` effects, made once per count.
struct FullCache {
  FullCache(std::size_t count, bool reversed) {
    std::mt19937 random(static_cast<unsigned>(count));
    RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(WStr(dir.Path().wstring().c_str())));
    std::vector<unsigned char> effect(kEffectBytes);
    for (std::size_t i = 0; i < count; ++i) {
      for (auto& b : effect) b = static_cast<unsigned char>(random() % 16);
      cache->CacheCompiledEffect(WStr(NameOf(i).c_str()), effect.data(), effect.size(), false);
    }
    cache->ForceSaveToFile();
    stored = cache->GetNumberOfEffectsInFile();
    cache.Reset();
    file = dir.File("norvaneFxoCache.dat");
    if (reversed) Testing::EffectTesting::ReverseIndex(file);
  }
  Testing::TempDir dir;
  std::wstring file;
  std::uint64_t stored = 0;
};

FullCache& CacheOf(std::size_t count, bool reversed) {
  static std::map<std::pair<std::size_t, bool>, std::unique_ptr<FullCache>> caches;
  auto& cache = caches[{count, reversed}];
  if (!cache) cache.reset(new FullCache(count, reversed));
  return *cache;
}

// One fread of the whole file into a buffer of its size.
double FreadWhole(const std::wstring& path, std::size_t* bytes) {
  const auto start = Clock::now();
  std::FILE* file = NativeFile::Open(path.c_str(), "rb");
  if (file == nullptr || NativeFile::Seek(file, 0, SEEK_END) != 0) std::abort();
  const auto size = static_cast<std::size_t>(NativeFile::Tell(file));
  if (NativeFile::Seek(file, 0, SEEK_SET) != 0) std::abort();
  std::unique_ptr<unsigned char[]> all(new unsigned char[size]);
  if (std::fread(all.get(), 1, size, file) != size) std::abort();
  std::fclose(file);
  *bytes = size;
  return Seconds(start);
}

double OpenAndSearch(const FullCache& full, std::size_t count) {
  RefPtr<EffectCacheSystem> cache;
  Tab<unsigned char> data;
  bool found = false;
  double seconds = 0;
  {
    // The phase ends before the cache is released: closing is not timed.
    Bench::PerfPhase phase("open");
    const auto start = Clock::now();
    cache = new EffectCacheSystem(WStr(full.dir.Path().wstring().c_str()));
    found = cache->SearchCachedEffects(WStr(NameOf(count / 2).c_str()), data);
    seconds = Seconds(start);
  }
  if (!found || data.Count() != static_cast<INT_PTR>(kEffectBytes)) std::abort();
  return seconds;
}

void BM_OpenFullCache(benchmark::State& state) {
  const auto count = static_cast<std::size_t>(state.range(0));
  FullCache& full = CacheOf(count, state.range(1) != 0);
  if (full.stored != count) {
    state.SkipWithError("the cache did not keep every effect");
    return;
  }
  double open = 0, plain = 0;
  std::size_t bytes = 0;
  for (auto _ : state) {
    plain += FreadWhole(full.file, &bytes);
    const double t = OpenAndSearch(full, count);
    open += t;
    state.SetIterationTime(t);
  }
  const double runs = static_cast<double>(state.iterations());
  state.counters["open_ms"] = open / runs * 1e3;
  state.counters["fread_ms"] = plain / runs * 1e3;
  state.counters["open_vs_fread"] = open / plain;
  state.counters["us_per_effect"] = open / runs / static_cast<double>(count) * 1e6;
  state.counters["file_MB"] = static_cast<double>(bytes) / 1e6;
}
BENCHMARK(BM_OpenFullCache)
    ->ArgNames({"effects", "reversed"})
    ->Args({1000, 0})
    ->Args({10000, 0})
    ->Args({65534, 0})
    ->Args({65534, 1})
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace Tovrel

BENCHMARK_MAIN();
