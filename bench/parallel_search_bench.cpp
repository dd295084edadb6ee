// Searches side by side: one cache folder holding the first 3,000 effects
// of the effect workload (2 KiB to 64 KiB), searched by 1, 2 and 4 threads
// of one process, each thread looking up every name in its own order, and
// by 1 and 2 processes doing the same. For each: searches per second over
// the whole phase, the latency of one search (p50, p99, p99.9, longest) and
// how many searches took more than 5 ms, and how many waits for the
// file's named mutex the searches began (none, when no search waited for
// another); and the ratios of 2 and 4 threads,
// and of 2 processes, to one.
//
// The processes are this program again ("--search-child"): each opens the
// cache, searches every name once to warm it, says it is ready, waits for
// the start, searches every name in its own order and writes its
// latencies and its elapsed time to a file. tools/syscalls-per-search.sh
// runs one such child under strace ("--save-cache FOLDER" makes its cache).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "EffectWorkload.h"
#include "effectcache/CacheFileNames.h"
#include "platform/MutexWaits.h"
#include "platform/WideText.h"
#include "platform/PlatformProcess.h"
#include "support/TempDir.h"
#include "tovrel/tovrel.h"

namespace Tovrel {
namespace {

namespace fs = std::filesystem;
using Bench::EffectWorkload;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kEffects = 3000;
constexpr double kLongMicroseconds = 5000;

double Micros(Clock::duration d) { return std::chrono::duration<double, std::micro>(d).count(); }

void SaveEffects(const std::wstring& folder) {
  const EffectWorkload& w = EffectWorkload::Get();
  RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(WStr(folder.c_str())));
  for (std::size_t i = 0; i < kEffects; ++i) {
    cache->CacheCompiledEffect(WStr(w.names[i].c_str()), w.effects[i].data(), w.effects[i].size(), false);
  }
  cache->ForceSaveToFile();
  if (cache->GetNumberOfEffectsInFile() != kEffects) std::abort();
}

// Every name once, in an order of the seed's; each search's microseconds
// are appended to `micros`.
void SearchEvery(EffectCacheSystem& cache, std::uint32_t seed, std::vector<double>& micros) {
  const EffectWorkload& w = EffectWorkload::Get();
  std::vector<std::size_t> order(kEffects);
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::shuffle(order.begin(), order.end(), std::mt19937(seed));
  Tab<unsigned char> data;
  for (std::size_t i : order) {
    const auto start = Clock::now();
    const bool found = cache.SearchCachedEffects(WStr(w.names[i].c_str()), data);
    micros.push_back(Micros(Clock::now() - start));
    if (!found || static_cast<std::size_t>(data.Count()) != w.effects[i].size()) std::abort();
  }
}

struct Phase {
  double seconds = 0;
  std::vector<double> micros;  // every search's
  std::uint64_t mutexWaits = 0;  // waits for the file's named mutex
};

// The UTF-8 name of the named mutex of the cache file in `folder`.
std::string FileMutexName(const std::wstring& folder) {
  const WStr file = CacheFileNames::CacheFilePathFor(WStr(folder.c_str()));
  return WideText::ToUtf8(CacheFileNames::FileMutexName(file.data()));
}

Phase SearchWithThreads(const std::wstring& folder, int threads) {
  RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(WStr(folder.c_str())));
  std::vector<double> warm;
  SearchEvery(*cache, 99, warm);
  std::vector<std::vector<double>> micros(static_cast<std::size_t>(threads));
  std::vector<std::thread> running;
  MutexWaits::StartCounting();
  const auto start = Clock::now();
  for (int t = 0; t < threads; ++t) {
    running.emplace_back([&, t] { SearchEvery(*cache, static_cast<std::uint32_t>(t + 1), micros[static_cast<std::size_t>(t)]); });
  }
  for (std::thread& thread : running) thread.join();
  Phase phase;
  phase.seconds = Micros(Clock::now() - start) / 1e6;
  phase.mutexWaits = MutexWaits::Started(FileMutexName(folder));
  MutexWaits::Reset();
  for (const auto& m : micros) phase.micros.insert(phase.micros.end(), m.begin(), m.end());
  return phase;
}

void WaitFor(const fs::path& file) {
  while (!fs::exists(file)) std::this_thread::sleep_for(std::chrono::microseconds(200));
}

int SearchChild(int argc, char** argv) {
  if (argc != 6) return 2;
  const std::wstring folder = fs::path(argv[2]).wstring();
  const std::uint32_t seed = static_cast<std::uint32_t>(std::atoi(argv[3]));
  const fs::path start = argv[4];
  const fs::path out = argv[5];
  RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(WStr(folder.c_str())));
  std::vector<double> micros;
  SearchEvery(*cache, 99, micros);
  micros.clear();
  std::ofstream(out.string() + ".ready").close();
  const std::string mutexName = FileMutexName(folder);
  WaitFor(start);
  MutexWaits::StartCounting();
  const auto began = Clock::now();
  SearchEvery(*cache, seed, micros);
  const double seconds = Micros(Clock::now() - began) / 1e6;
  const std::uint64_t waits = MutexWaits::Started(mutexName);
  std::ofstream file(out, std::ios::binary);
  file << seconds << "\n" << waits << "\n";
  for (double m : micros) file << m << "\n";
  return file ? 0 : 3;
}

Phase SearchWithProcesses(const std::wstring& folder, int processes) {
  Testing::TempDir dir;
  const fs::path start = dir.Path() / "start";
  std::vector<std::unique_ptr<PlatformProcess>> children;
  std::vector<fs::path> outs;
  for (int p = 0; p < processes; ++p) {
    outs.push_back(dir.Path() / ("searches" + std::to_string(p)));
    children.emplace_back(new PlatformProcess);
    const std::vector<std::string> arguments = {"--search-child", fs::path(folder).string(), std::to_string(p + 1),
                                                start.string(), outs.back().string()};
    if (!children.back()->Start(PlatformProcess::CurrentExecutable(), arguments)) std::abort();
  }
  for (const fs::path& out : outs) WaitFor(out.string() + ".ready");
  std::ofstream(start).close();
  Phase phase;
  for (std::size_t p = 0; p < children.size(); ++p) {
    int exitCode = -1;
    if (!children[p]->Wait(600000, &exitCode) || exitCode != 0) std::abort();
    std::ifstream in(outs[p]);
    double seconds = 0;
    std::uint64_t waits = 0;
    in >> seconds >> waits;
    phase.seconds = std::max(phase.seconds, seconds);
    phase.mutexWaits += waits;
    for (double m = 0; in >> m;) phase.micros.push_back(m);
  }
  return phase;
}

double Percentile(std::vector<double> micros, double p) {
  std::sort(micros.begin(), micros.end());
  const auto at = static_cast<std::size_t>(p * static_cast<double>(micros.size() - 1));
  return micros[at];
}

void Report(benchmark::State& state, const std::string& name, const Phase& phase) {
  state.counters[name + "_searches_per_s"] = static_cast<double>(phase.micros.size()) / phase.seconds;
  state.counters[name + "_p50_us"] = Percentile(phase.micros, 0.50);
  state.counters[name + "_p99_us"] = Percentile(phase.micros, 0.99);
  state.counters[name + "_p999_us"] = Percentile(phase.micros, 0.999);
  state.counters[name + "_longest_us"] = Percentile(phase.micros, 1.0);
  state.counters[name + "_mutex_waits"] = static_cast<double>(phase.mutexWaits);
  state.counters[name + "_over_5ms"] = static_cast<double>(
      std::count_if(phase.micros.begin(), phase.micros.end(), [](double m) { return m > kLongMicroseconds; }));
}

double Rate(const Phase& phase) { return static_cast<double>(phase.micros.size()) / phase.seconds; }

void BM_ParallelSearch(benchmark::State& state) {
  Testing::TempDir dir;
  const std::wstring folder = dir.Path().wstring();
  SaveEffects(folder);
  for (auto _ : state) {
    const Phase one = SearchWithThreads(folder, 1);
    const Phase two = SearchWithThreads(folder, 2);
    const Phase four = SearchWithThreads(folder, 4);
    const Phase process = SearchWithProcesses(folder, 1);
    const Phase processes = SearchWithProcesses(folder, 2);
    state.SetIterationTime(one.seconds);
    Report(state, "threads1", one);
    Report(state, "threads2", two);
    Report(state, "threads4", four);
    Report(state, "processes1", process);
    Report(state, "processes2", processes);
    state.counters["threads2_vs_1"] = Rate(two) / Rate(one);
    state.counters["threads4_vs_1"] = Rate(four) / Rate(one);
    state.counters["processes2_vs_1"] = Rate(processes) / Rate(process);
    state.counters["threads2_p999_vs_1"] = Percentile(two.micros, 0.999) / Percentile(one.micros, 0.999);
  }
}
BENCHMARK(BM_ParallelSearch)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace Tovrel

int main(int argc, char** argv) {
  if (argc > 1 && std::string(argv[1]) == "--search-child") return Tovrel::SearchChild(argc, argv);
  if (argc == 3 && std::string(argv[1]) == "--save-cache") {
    Tovrel::SaveEffects(std::filesystem::path(argv[2]).wstring());
    return 0;
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
