// ParallelJobs: runs jobs 0..count-1 on the calling thread and up to
// `workers` - 1 short-lived helper threads, each thread taking the next
// job not yet taken, so that one long job holds up one thread only.
//
// Used where a call has many independent pieces of work: compressing a
// save's effects on every core, and keeping several requests to a remote
// store in flight. Helpers of a caller of lowered priority (a background
// save) run at lowered priority too. When no thread can be had, the
// calling thread does every job. An exception a job throws ends no
// thread: the first one is thrown again by Run once every thread is done
// (the jobs not yet taken then never run).
//
// Stateless; Run may be called from any thread. The jobs must be safe to
// run at the same time.
#ifndef TOVREL_EFFECTCACHE_PARALLELJOBS_H
#define TOVREL_EFFECTCACHE_PARALLELJOBS_H

#include <cstddef>
#include <functional>

namespace Tovrel {

class ParallelJobs {
 public:
  static void Run(std::size_t count, unsigned workers, const std::function<void(std::size_t job)>& job);
};

}  // namespace Tovrel

#endif
