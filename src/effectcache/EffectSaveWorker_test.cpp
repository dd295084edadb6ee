#include "effectcache/EffectSaveWorker.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/ThreadPriority.h"

namespace Tovrel {
namespace {

TEST(EffectSaveWorkerTest, AWaitedRequestRunsTheJobOnAnotherThread) {
  const bool before = ThreadPriority::CurrentThreadIsLowered();
  std::atomic<int> runs{0};
  std::thread::id ranOn;
  bool lowered = false;
  EffectSaveWorker worker([&] {
    ranOn = std::this_thread::get_id();
    lowered = ThreadPriority::CurrentThreadIsLowered();
    ++runs;
  });
  worker.RequestAndWait();
  EXPECT_EQ(runs.load(), 1);
  EXPECT_NE(ranOn, std::this_thread::get_id());
  EXPECT_TRUE(lowered) << "the worker runs at the host's priority";
  EXPECT_EQ(ThreadPriority::CurrentThreadIsLowered(), before);
  EXPECT_EQ(worker.ThreadsStarted(), 1u);
  worker.RequestAndWait();
  EXPECT_EQ(runs.load(), 2);
  EXPECT_EQ(worker.ThreadsStarted(), 1u);  // one thread serves every run
}

// A job whose first run waits until the test opens the gate.
class GatedJob {
 public:
  void operator()() {
    if (++runs_ == 1) {
      inFirstRun_ = true;
      std::unique_lock<std::mutex> held(lock_);
      opened_.wait(held, [&] { return open_; });
    }
  }
  void WaitForFirstRun() const {
    while (!inFirstRun_) std::this_thread::yield();
  }
  void Open() {
    {
      std::lock_guard<std::mutex> held(lock_);
      open_ = true;
    }
    opened_.notify_all();
  }
  int Runs() const { return runs_.load(); }

 private:
  std::mutex lock_;
  std::condition_variable opened_;
  bool open_ = false;
  std::atomic<int> runs_{0};
  std::atomic<bool> inFirstRun_{false};
};

TEST(EffectSaveWorkerTest, RequestsDuringARunMakeOneMoreRunNotOneEach) {
  GatedJob job;
  EffectSaveWorker worker([&] { job(); });
  worker.Request();
  job.WaitForFirstRun();
  for (int i = 0; i < 5; ++i) worker.Request();
  job.Open();
  worker.WaitIdle();
  EXPECT_EQ(job.Runs(), 2);
}

TEST(EffectSaveWorkerTest, AWaitedRequestWaitsForARunThatBeganAfterIt) {
  // A run under way when the request comes may have missed what the
  // requester made ready: the wait is for the next run.
  GatedJob job;
  EffectSaveWorker worker([&] { job(); });
  worker.Request();
  job.WaitForFirstRun();
  std::thread waiter([&] { worker.RequestAndWait(); });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  job.Open();
  waiter.join();
  EXPECT_EQ(job.Runs(), 2);
}

TEST(EffectSaveWorkerTest, StopEndsTheRunsAskedForAndALaterRequestStartsAgain) {
  std::atomic<int> runs{0};
  EffectSaveWorker worker([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ++runs;
  });
  worker.Request();
  worker.Stop();
  EXPECT_EQ(runs.load(), 1);
  worker.RequestAndWait();
  EXPECT_EQ(runs.load(), 2);
  EXPECT_EQ(worker.ThreadsStarted(), 2u);
}

TEST(EffectSaveWorkerTest, ManyThreadsAskingAtOnceAllSeeTheirRunEnd) {
  std::atomic<int> runs{0};
  EffectSaveWorker worker([&] { ++runs; });
  std::vector<std::thread> askers;
  for (int t = 0; t < 4; ++t) {
    askers.emplace_back([&] {
      for (int i = 0; i < 50; ++i) worker.RequestAndWait();
    });
  }
  for (std::thread& asker : askers) asker.join();
  EXPECT_GE(runs.load(), 50);
  EXPECT_LE(runs.load(), 200);
}

}  // namespace
}  // namespace Tovrel
