// EffectSaveWorker: the thread on which an effect cache with background
// saving on runs its saves.
//
// It runs one job (the cache's background save) whenever it is asked:
// asks that come while a run is under way make one more run after it,
// never one per ask. The thread runs below the normal priority (see
// ThreadPriority), so the host's threads go first. It starts at the first
// ask and ends with Stop or the worker; when no thread can be started (no
// memory, no thread to be had), the asker runs the job itself, so a save
// is never lost for want of a thread.
//
// Owned by EffectCacheImpl (one per cache; its thread starts only when
// background saving asks for a save). The job must not throw. Thread-safety: Request, RequestAndWait and
// WaitIdle may be called from any thread, but never from the job; Stop
// and the destructor from one thread, with no other call under way.
#ifndef TOVREL_EFFECTCACHE_EFFECTSAVEWORKER_H
#define TOVREL_EFFECTCACHE_EFFECTSAVEWORKER_H

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>

namespace Tovrel {

class EffectSaveWorker {
 public:
  explicit EffectSaveWorker(std::function<void()> job);
  ~EffectSaveWorker();
  EffectSaveWorker(const EffectSaveWorker&) = delete;
  EffectSaveWorker& operator=(const EffectSaveWorker&) = delete;

  // Asks for a run and returns at once.
  void Request();
  // Asks for a run and returns when a run that began after this call has
  // ended.
  void RequestAndWait();
  // Returns when every run asked for so far has ended.
  void WaitIdle();
  // Ends the runs asked for, then the thread.
  void Stop();
  // Runs the worker's thread made (0 or 1 while it lives), for tests.
  std::uint64_t ThreadsStarted() const;

 private:
  void Loop();
  // Asks for one more run; the number it will have when it ends. Starts
  // the thread, or runs the job here when none can be had.
  std::uint64_t Ask(std::unique_lock<std::mutex>& held);
  // Begins a run that takes every ask so far, runs the job without the
  // lock, and ends it.
  void RunOnce(std::unique_lock<std::mutex>& held);

  std::function<void()> job_;
  mutable std::mutex lock_;  // over every field below
  std::condition_variable changed_;
  // Runs asked for, begun and ended, counted from the first. Invariant:
  // ended_ <= begun_ <= asked_; a run that begins takes every ask so far.
  std::uint64_t asked_ = 0;
  std::uint64_t begun_ = 0;
  std::uint64_t ended_ = 0;
  bool stopping_ = false;
  std::uint64_t threadsStarted_ = 0;
  std::thread thread_;
};

}  // namespace Tovrel

#endif
