// The remote store, on the demo's workload (2,000 effects of 2-64 KiB,
// about 3 ms of CPU work per compile), against nginx with WebDAV on
// 127.0.0.1, in the same run:
//   - cold: a workstation's first run without a team tier: every effect
//     compiled and cached;
//   - team: a second workstation's first run with a warm team tier: every
//     effect fetched from the store (then saved into its own file);
//   - local: that workstation's next run, from its own file.
// Counters: each run's seconds, cold over team (the team tier's speed-up),
// team over local, and the bytes the team run fetched. BM_FailureCost
// measures what each kind of failing server costs one search with the
// default bounds (250 ms to connect, 2 s per request), and what the next
// search costs while the store rests. BM_ListingLinks reads listing pages
// of 20,000 to 480,000 objects. BM_Transfers pushes the demo's 2,000
// effects to nginx behind a proxy that delays every request by 20 ms (a
// server across a network) and pulls them into an empty folder, with 1
// and with 8 requests in flight: seconds of each, and 1 job over 8.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "StdioBaseline.h"
#include "SyntheticShaders.h"
#include "effectcache/EffectCacheImpl.h"
#include "effectcache/EffectRemoteStore.h"
#include "effectcache/EffectRemoteSync.h"
#include "platform/WideText.h"
#include "support/RemoteServer.h"
#include "support/TempDir.h"

namespace Tovrel {
namespace {

using Bench::Clock;
using Bench::Seconds;

constexpr std::uint32_t kEffects = 2000;

struct Run {
  double seconds = 0;
  std::uint64_t hits = 0;
  std::uint64_t bytesIn = 0;
};

// One run of the demo's host on `folder`: search every effect, compile and
// cache it on a miss; the cache let go (and so saved, and PUT) in the time.
Run PlayHost(const std::filesystem::path& folder, const Tool::SyntheticShaders& shaders,
             const EffectRemoteStore::Settings* remote) {
  std::filesystem::create_directories(folder);
  Run run;
  const auto start = Clock::now();
  {
    EffectCacheImpl cache(WStr(folder.wstring().c_str()), EffectCacheImpl::kHostCompressionLevel);
    cache.SetRemoteStore(remote);
    for (std::uint32_t i = 0; i < kEffects; ++i) {
      const WStr name(WideText::FromUtf8(shaders.Name(i)));
      Tab<unsigned char> found;
      if (cache.SearchCachedEffects(name, found)) {
        ++run.hits;
      } else {
        const std::vector<unsigned char> compiled = shaders.Compile(i);
        cache.CacheCompiledEffect(name, compiled.data(), compiled.size(), false);
      }
    }
    cache.ForceSaveToFile();
    run.bytesIn = cache.GetRemoteCounts().bytesIn;
  }
  run.seconds = Seconds(start);
  return run;
}

void BM_TeamTier(benchmark::State& state) {
  Testing::TempDir dir;
  auto server = Testing::RemoteServer::StartNginx(dir.Path() / "nginx");
  if (!server) {
    state.SkipWithError("no nginx here");
    return;
  }
  const Tool::SyntheticShaders shaders(Tool::SyntheticShaders::kDefaultSeed,
                                       Tool::SyntheticShaders::kDefaultWorkRounds);
  double cold = 0, team = 0, local = 0;
  std::uint64_t bytes = 0;
  int round = 0;
  for (auto _ : state) {
    EffectRemoteStore::Settings remote;
    RemoteStoreSettings::Parse(server->Url() + "round" + std::to_string(round), &remote);
    const std::filesystem::path base = dir.Path() / ("round" + std::to_string(round++));
    // The first workstation fills the team tier as it compiles.
    const Run first = PlayHost(base / "first", shaders, &remote);
    const Run second = PlayHost(base / "second", shaders, &remote);
    const Run again = PlayHost(base / "second", shaders, &remote);
    if (first.hits != 0 || second.hits != kEffects || again.hits != kEffects) {
      state.SkipWithError("the runs did not find what they should");
      return;
    }
    cold += first.seconds;
    team += second.seconds;
    local += again.seconds;
    bytes += second.bytesIn;
    state.SetIterationTime(second.seconds);
  }
  const double runs = static_cast<double>(state.iterations());
  state.counters["cold_s"] = cold / runs;
  state.counters["team_s"] = team / runs;
  state.counters["local_s"] = local / runs;
  state.counters["cold_vs_team"] = cold / team;
  state.counters["team_vs_local"] = team / local;
  state.counters["fetched_MB"] = static_cast<double>(bytes) / runs / 1e6;
}
BENCHMARK(BM_TeamTier)->UseManualTime()->Iterations(3)->Unit(benchmark::kSecond);

// The demo's effects in `folder`'s cache: the same names and sizes (the
// compile's hash rounds, which change only a digest, left out).
std::vector<std::string> FillCache(const std::filesystem::path& folder) {
  const Tool::SyntheticShaders shaders(Tool::SyntheticShaders::kDefaultSeed, 0);
  std::filesystem::create_directories(folder);
  std::vector<std::string> names;
  EffectCacheImpl cache(WStr(folder.wstring().c_str()), EffectCacheImpl::kHostCompressionLevel);
  for (std::uint32_t i = 0; i < kEffects; ++i) {
    const std::vector<unsigned char> compiled = shaders.Compile(i);
    names.push_back(shaders.Name(i));
    cache.CacheCompiledEffect(WStr(WideText::FromUtf8(names.back()).c_str()), compiled.data(), compiled.size(),
                              false);
  }
  cache.ForceSaveToFile();
  return names;
}

void BM_Transfers(benchmark::State& state) {
  Testing::TempDir dir;
  auto server = Testing::RemoteServer::StartNginx(dir.Path() / "nginx");
  auto delayed = server ? Testing::RemoteServer::StartDelayed(dir.Path() / "proxy", server->Url(), 20) : nullptr;
  if (!delayed) {
    state.SkipWithError(Testing::RemoteServer::WhyNone().c_str());
    return;
  }
  const std::filesystem::path source = dir.Path() / "source";
  const std::vector<std::string> names = FillCache(source);
  std::map<unsigned, double> push, pull;
  int round = 0;
  for (auto _ : state) {
    for (unsigned jobs : {1u, 8u}) {
      const std::string prefix = "round" + std::to_string(round) + "-jobs" + std::to_string(jobs);
      EffectRemoteStore::Settings settings;
      RemoteStoreSettings::Parse(delayed->Url() + prefix, &settings);
      auto start = Clock::now();
      const auto pushed = EffectRemoteSync::Push(WStr(source.wstring().c_str()), settings, nullptr, jobs);
      push[jobs] += Seconds(start);
      const std::filesystem::path target = dir.Path() / prefix;
      std::filesystem::create_directories(target);
      start = Clock::now();
      const auto pulled = EffectRemoteSync::Pull(WStr(target.wstring().c_str()), settings, names, nullptr, jobs);
      pull[jobs] += Seconds(start);
      if (pushed.moved != kEffects || pulled.moved != kEffects) {
        state.SkipWithError(("not every effect moved: " + pushed.lastError + pulled.lastError).c_str());
        return;
      }
    }
    ++round;
    state.SetIterationTime(push[8] + pull[8]);
  }
  const double runs = static_cast<double>(state.iterations());
  state.counters["push_1job_s"] = push[1] / runs;
  state.counters["push_8jobs_s"] = push[8] / runs;
  state.counters["push_1_over_8"] = push[1] / push[8];
  state.counters["pull_1job_s"] = pull[1] / runs;
  state.counters["pull_8jobs_s"] = pull[8] / runs;
  state.counters["pull_1_over_8"] = pull[1] / pull[8];
}
BENCHMARK(BM_Transfers)->UseManualTime()->Iterations(1)->Unit(benchmark::kSecond);

// Cost of one search against a failing store, with the default bounds,
// then of the next one while the store rests.
void BM_FailureCost(benchmark::State& state, const char* path) {
  Testing::TempDir dir;
  auto server = Testing::RemoteServer::StartFaults(dir.Path() / "faults");
  if (!server) {
    state.SkipWithError("no fault server here");
    return;
  }
  // The object /truncated/ cuts in half: one of 100 KB.
  const std::vector<std::uint8_t> object(100000, 7);
  Testing::RemoteServer::Put(server->Url() + "ok/x", object);
  const std::string url = std::string(path) == "dead" ? Testing::RemoteServer::DeadUrl() : server->Url() + path;
  double first = 0, resting = 0;
  for (auto _ : state) {
    EffectRemoteStore::Settings settings;
    RemoteStoreSettings::Parse(url, &settings);
    EffectRemoteStore store(settings);
    Tab<unsigned char> data;
    auto start = Clock::now();
    store.Fetch("a.fxo", data, nullptr);
    const double t = Seconds(start);
    start = Clock::now();
    store.Fetch("b.fxo", data, nullptr);
    resting += Seconds(start);
    first += t;
    state.SetIterationTime(t);
  }
  const double runs = static_cast<double>(state.iterations());
  state.counters["first_ms"] = first / runs * 1e3;
  state.counters["resting_ms"] = resting / runs * 1e3;
}
BENCHMARK_CAPTURE(BM_FailureCost, dead, "dead")->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_FailureCost, hang, "hang/")->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_FailureCost, slow, "slow/")->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_FailureCost, status500, "status500/")
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_FailureCost, truncated, "truncated/")
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_FailureCost, huge, "huge/")->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

// Reading one listing page of N objects, each named twice as nginx's
// autoindex names it, against the floor of scanning the page's quotes
// without keeping anything (the same run). Counter: listing over floor.
std::vector<std::uint8_t> ListingPage(std::size_t objects) {
  std::string page;
  const char* digits = "0123456789abcdef";
  for (std::size_t i = 0; i < objects; ++i) {
    std::string key(32, '0');
    std::uint64_t value = i * 0x9E3779B97F4A7C15ull;
    for (std::size_t d = 0; d < 16; ++d, value >>= 4) key[31 - d] = digits[value & 15];
    page += "<a href=\"" + key + "\">" + key + "</a>  26-Nov-2026 10:00   4096\n";
  }
  return std::vector<std::uint8_t>(page.begin(), page.end());
}

void BM_ListingLinks(benchmark::State& state) {
  const std::vector<std::uint8_t> page = ListingPage(static_cast<std::size_t>(state.range(0)));
  double listing = 0, floor = 0;
  std::size_t kept = 0, quotes = 0;
  for (auto _ : state) {
    auto start = Clock::now();
    kept = EffectRemoteStore::ListingLinks(page, 32, false).size();
    const double t = Seconds(start);
    start = Clock::now();
    quotes = 0;
    for (std::uint8_t byte : page) quotes += byte == '"' ? 1 : 0;
    benchmark::DoNotOptimize(quotes);
    floor += Seconds(start);
    listing += t;
    state.SetIterationTime(t);
  }
  const double runs = static_cast<double>(state.iterations());
  state.counters["keys"] = static_cast<double>(kept);
  state.counters["listing_ms"] = listing / runs * 1e3;
  state.counters["over_floor"] = listing / floor;
}
BENCHMARK(BM_ListingLinks)
    ->Arg(20000)
    ->Arg(40000)
    ->Arg(80000)
    ->Arg(480000)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace Tovrel

BENCHMARK_MAIN();
