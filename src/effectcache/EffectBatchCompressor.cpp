#include "effectcache/EffectBatchCompressor.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <thread>

#include "effectcache/EffectCompression.h"
#include "platform/LocalClock.h"
#include "platform/ThreadPriority.h"

namespace Tovrel {

unsigned EffectBatchCompressor::WorkersFor(std::size_t jobs, std::uint64_t totalBytes, unsigned cores) {
  if (jobs < 2 || cores < 2 || totalBytes < kMinBytesForWorkers) return 0;
  return static_cast<unsigned>(std::min<std::size_t>({jobs, cores, kMostWorkers}));
}

std::vector<EffectBatchCompressor::Result> EffectBatchCompressor::CompressAll(const std::vector<Job>& jobs,
                                                                             int level) {
  std::vector<Result> results(jobs.size());
  std::uint64_t total = 0;
  for (const Job& job : jobs) total += job.size;
  const unsigned workers = WorkersFor(jobs.size(), total, std::thread::hardware_concurrency());
  // Each thread takes the next job not yet taken, so a large effect holds
  // up one thread only.
  std::atomic<std::size_t> next{0};
  const auto work = [&]() noexcept {
    for (std::size_t i = next++; i < jobs.size(); i = next++) CompressOne(jobs[i], level, results[i]);
  };
  // A caller of lowered priority (a background save) gets helpers of
  // lowered priority: the host's threads go first.
  const bool lowered = workers > 1 && ThreadPriority::CurrentThreadIsLowered();
  const auto help = [&]() noexcept {
    if (lowered) ThreadPriority::LowerCurrentThread();
    work();
  };
  std::vector<std::thread> threads;
  try {
    for (unsigned w = 1; w < workers; ++w) threads.emplace_back(help);
  } catch (const std::exception&) {
    // No thread to be had: the calling thread does the rest.
  }
  work();
  for (std::thread& thread : threads) thread.join();
  return results;
}

void EffectBatchCompressor::CompressOne(const Job& job, int level, Result& result) {
  try {
    result.compressed.resize(EffectCompression::CompressBound(job.size));
    std::uint64_t size = result.compressed.size();
    const std::uint32_t start = LocalClock::TickCount();
    result.ok = EffectCompression::CompressEffect(result.compressed.data(), size, job.bytes, job.size, level) ==
                EffectCompression::kOk;
    result.milliseconds = LocalClock::TickCount() - start;
    result.compressed.resize(result.ok ? size : 0);
  } catch (const std::exception&) {
    result.ok = false;
    result.compressed.clear();
  }
}

}  // namespace Tovrel
