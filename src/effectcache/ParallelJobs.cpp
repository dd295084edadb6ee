#include "effectcache/ParallelJobs.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/ThreadPriority.h"

namespace Tovrel {

void ParallelJobs::Run(std::size_t count, unsigned workers, const std::function<void(std::size_t job)>& job) {
  std::atomic<std::size_t> next{0};
  std::mutex failureLock;
  std::exception_ptr failure;
  const auto work = [&]() noexcept {
    for (std::size_t i = next++; i < count; i = next++) {
      try {
        job(i);
      } catch (...) {
        std::lock_guard<std::mutex> guard(failureLock);
        if (!failure) failure = std::current_exception();
        next = count;  // the jobs not yet taken are not run
      }
    }
  };
  const std::size_t helpers = std::min<std::size_t>(workers, count) > 1 ? std::min<std::size_t>(workers, count) - 1 : 0;
  const bool lowered = helpers != 0 && ThreadPriority::CurrentThreadIsLowered();
  const auto help = [&]() noexcept {
    if (lowered) ThreadPriority::LowerCurrentThread();
    work();
  };
  std::vector<std::thread> threads;
  try {
    threads.reserve(helpers);
    for (std::size_t w = 0; w < helpers; ++w) threads.emplace_back(help);
  } catch (const std::exception&) {
    // No thread (or no memory for one) to be had: the calling thread does the rest.
  }
  work();
  for (std::thread& thread : threads) thread.join();
  if (failure) std::rethrow_exception(failure);
}

}  // namespace Tovrel
