#include "effectcache/EffectBatchCompressor.h"

#include <algorithm>
#include <exception>
#include <thread>

#include "effectcache/EffectCompression.h"
#include "effectcache/ParallelJobs.h"
#include "platform/LocalClock.h"

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
  // CompressOne throws nothing: a job that fails is a result that says so.
  ParallelJobs::Run(jobs.size(), std::max(workers, 1u), [&](std::size_t i) { CompressOne(jobs[i], level, results[i]); });
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
