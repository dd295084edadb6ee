#include "effectcache/ParallelJobs.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

namespace Tovrel {
namespace {

TEST(ParallelJobsTest, EveryJobRunsOnceOnAsManyThreadsAsAsked) {
  std::vector<std::atomic<int>> runs(1000);
  std::mutex lock;
  std::set<std::thread::id> threads;
  ParallelJobs::Run(runs.size(), 4, [&](std::size_t i) {
    ++runs[i];
    std::lock_guard<std::mutex> guard(lock);
    threads.insert(std::this_thread::get_id());
  });
  for (std::size_t i = 0; i < runs.size(); ++i) EXPECT_EQ(runs[i].load(), 1) << i;
  EXPECT_GE(threads.size(), 1u);
  EXPECT_LE(threads.size(), 4u);
}

TEST(ParallelJobsTest, OneWorkerOrNoneIsTheCallerAlone) {
  for (unsigned workers : {0u, 1u}) {
    std::set<std::thread::id> threads;
    int count = 0;
    ParallelJobs::Run(50, workers, [&](std::size_t) {
      threads.insert(std::this_thread::get_id());
      ++count;
    });
    EXPECT_EQ(count, 50);
    EXPECT_EQ(threads, std::set<std::thread::id>{std::this_thread::get_id()});
  }
  ParallelJobs::Run(0, 8, [](std::size_t) { FAIL() << "no job to run"; });
}

// Jobs that wait for each other finish only when they really run at once.
TEST(ParallelJobsTest, JobsRunAtTheSameTime) {
  std::atomic<int> arrived{0};
  ParallelJobs::Run(4, 4, [&](std::size_t) {
    ++arrived;
    while (arrived.load() < 4) std::this_thread::yield();
  });
  EXPECT_EQ(arrived.load(), 4);
}

TEST(ParallelJobsTest, AJobsExceptionReachesTheCallerAfterEveryThreadEnded) {
  std::atomic<int> running{0};
  EXPECT_THROW(ParallelJobs::Run(200, 4,
                                 [&](std::size_t i) {
                                   ++running;
                                   std::this_thread::yield();
                                   --running;
                                   if (i % 50 == 10) throw std::runtime_error("job");
                                 }),
               std::runtime_error);
  EXPECT_EQ(running.load(), 0);
  // On the caller alone, the jobs after the one that threw are not run.
  int ran = 0;
  EXPECT_THROW(ParallelJobs::Run(200, 1,
                                 [&](std::size_t i) {
                                   ++ran;
                                   if (i == 10) throw std::runtime_error("job 10");
                                 }),
               std::runtime_error);
  EXPECT_EQ(ran, 11);
}

}  // namespace
}  // namespace Tovrel
