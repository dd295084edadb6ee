#include "effectcache/EffectSaveWorker.h"

#include <cassert>
#include <new>
#include <system_error>
#include <utility>

#include "platform/ThreadPriority.h"

namespace Tovrel {

EffectSaveWorker::EffectSaveWorker(std::function<void()> job) : job_(std::move(job)) {}

EffectSaveWorker::~EffectSaveWorker() { Stop(); }

std::uint64_t EffectSaveWorker::Ask(std::unique_lock<std::mutex>& held) {
  assert(ended_ <= begun_ && begun_ <= asked_);
  const std::uint64_t wanted = ++asked_;
  if (thread_.joinable() || stopping_) {
    changed_.notify_all();
    return wanted;
  }
  try {
    thread_ = std::thread([this] { Loop(); });
    ++threadsStarted_;
    return wanted;
  } catch (const std::system_error&) {
  } catch (const std::bad_alloc&) {
  }
  // No thread: this caller runs every run asked for, one at a time.
  while (begun_ < asked_) RunOnce(held);
  return wanted;
}

void EffectSaveWorker::RunOnce(std::unique_lock<std::mutex>& held) {
  begun_ = asked_;
  const std::uint64_t run = begun_;
  held.unlock();
  job_();
  held.lock();
  ended_ = run;
  changed_.notify_all();
}

void EffectSaveWorker::Request() {
  std::unique_lock<std::mutex> held(lock_);
  Ask(held);
}

void EffectSaveWorker::RequestAndWait() {
  std::unique_lock<std::mutex> held(lock_);
  const std::uint64_t wanted = Ask(held);
  changed_.wait(held, [&] { return ended_ >= wanted; });
}

void EffectSaveWorker::WaitIdle() {
  std::unique_lock<std::mutex> held(lock_);
  changed_.wait(held, [&] { return ended_ >= asked_; });
}

void EffectSaveWorker::Stop() {
  std::unique_lock<std::mutex> held(lock_);
  if (!thread_.joinable()) return;
  stopping_ = true;
  changed_.notify_all();
  held.unlock();
  thread_.join();
  held.lock();
  thread_ = std::thread();
  stopping_ = false;
}

std::uint64_t EffectSaveWorker::ThreadsStarted() const {
  std::lock_guard<std::mutex> held(lock_);
  return threadsStarted_;
}

void EffectSaveWorker::Loop() {
  // Below the host's threads: a save waits for them, never they for it.
  ThreadPriority::LowerCurrentThread();
  std::unique_lock<std::mutex> held(lock_);
  for (;;) {
    changed_.wait(held, [&] { return begun_ < asked_ || stopping_; });
    if (begun_ == asked_) return;  // stopping, with every run asked for ended
    RunOnce(held);
  }
}

}  // namespace Tovrel
