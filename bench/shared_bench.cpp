// Uncontended costs of the cross-process shared state: the time stamp's
// IsChanged and UpdateTimeStamp, and a named mutex taken and given up
// through AutoMutex, each beside a plain std::mutex lock/unlock measured in
// the same run. Counters: ns per operation, and x_std_mutex, that time
// divided by the std::mutex time.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <string>

#include "host/AutoMutex.h"
#include "host/MutexObject.h"
#include "platform/SystemValues.h"
#include "tovrel/MultiProcessTimeStamp.h"

namespace {

using Clock = std::chrono::steady_clock;
using NorvaneSDK::Util::AutoMutex;
using NorvaneSDK::Util::MutexObject;
using Tovrel::MultiProcessTimeStamp;

std::wstring UniqueName(const wchar_t* stem) {
  return std::wstring(stem) + L"_" + std::to_wstring(Tovrel::SystemValues::ProcessId());
}

double NanosecondsPerRound(Clock::duration elapsed, benchmark::IterationCount rounds) {
  return std::chrono::duration<double, std::nano>(elapsed).count() / static_cast<double>(rounds);
}

// The baseline: the best of a few timed runs of std::mutex lock/unlock.
double StdMutexNanoseconds() {
  static const double best = [] {
    constexpr int kRuns = 5;
    constexpr int kRounds = 2000000;
    std::mutex mutex;
    double fastest = 1e30;
    for (int run = 0; run < kRuns; ++run) {
      const Clock::time_point start = Clock::now();
      for (int i = 0; i < kRounds; ++i) {
        mutex.lock();
        benchmark::ClobberMemory();
        mutex.unlock();
      }
      fastest = std::min(fastest, NanosecondsPerRound(Clock::now() - start, kRounds));
    }
    return fastest;
  }();
  return best;
}

void Report(benchmark::State& state, Clock::duration elapsed) {
  const double ns = NanosecondsPerRound(elapsed, state.iterations());
  state.counters["ns"] = ns;
  state.counters["x_std_mutex"] = ns / StdMutexNanoseconds();
}

void BM_StdMutexLockUnlock(benchmark::State& state) {
  std::mutex mutex;
  const Clock::time_point start = Clock::now();
  for (auto _ : state) {
    mutex.lock();
    benchmark::ClobberMemory();
    mutex.unlock();
  }
  Report(state, Clock::now() - start);
}
BENCHMARK(BM_StdMutexLockUnlock);

void BM_AutoMutexAcquireRelease(benchmark::State& state) {
  MutexObject mutex(UniqueName(L"tovrel_bench_mutex").c_str());
  if (!mutex.IsValid()) state.SkipWithError("the named mutex cannot be made");
  const Clock::time_point start = Clock::now();
  for (auto _ : state) {
    AutoMutex hold(mutex);
    benchmark::ClobberMemory();
  }
  Report(state, Clock::now() - start);
}
BENCHMARK(BM_AutoMutexAcquireRelease);

void BM_TimeStampIsChanged(benchmark::State& state) {
  MultiProcessTimeStamp stamp;
  stamp.Initialize(UniqueName(L"tovrel_bench_ischanged").c_str());
  const Clock::time_point start = Clock::now();
  for (auto _ : state) benchmark::DoNotOptimize(stamp.IsChanged());
  Report(state, Clock::now() - start);
}
BENCHMARK(BM_TimeStampIsChanged);

void BM_TimeStampUpdate(benchmark::State& state) {
  MultiProcessTimeStamp stamp;
  stamp.Initialize(UniqueName(L"tovrel_bench_update").c_str());
  const Clock::time_point start = Clock::now();
  for (auto _ : state) {
    stamp.UpdateTimeStamp();
    benchmark::ClobberMemory();
  }
  Report(state, Clock::now() - start);
}
BENCHMARK(BM_TimeStampUpdate);

}  // namespace

BENCHMARK_MAIN();
