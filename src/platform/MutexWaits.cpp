#include "platform/MutexWaits.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>

namespace Tovrel {

namespace {

struct WaitState {
  std::atomic<bool> counting{false};
  std::mutex lock;                          // over waiting
  std::condition_variable entered;          // notified by every Enter
  std::map<std::string, std::uint64_t> waiting;  // waits under way, by name
  std::map<std::string, std::uint64_t> started;  // waits begun since counting started, by name
};

WaitState& State() {
  static WaitState* const state = new WaitState;  // never destroyed: waits may end at exit
  return *state;
}

}  // namespace

void MutexWaits::StartCounting() {
  WaitState& s = State();
  std::lock_guard<std::mutex> guard(s.lock);
  s.waiting.clear();
  s.started.clear();
  s.counting.store(true, std::memory_order_relaxed);
}

void MutexWaits::Reset() {
  WaitState& s = State();
  std::lock_guard<std::mutex> guard(s.lock);
  s.counting.store(false, std::memory_order_relaxed);
  s.waiting.clear();
  s.started.clear();
}

std::uint64_t MutexWaits::Started(const std::string& name) {
  WaitState& s = State();
  std::lock_guard<std::mutex> guard(s.lock);
  const auto found = s.started.find(name);
  return found == s.started.end() ? 0 : found->second;
}

std::uint64_t MutexWaits::UnderWay(const std::string& name) {
  WaitState& s = State();
  std::lock_guard<std::mutex> guard(s.lock);
  const auto found = s.waiting.find(name);
  return found == s.waiting.end() ? 0 : found->second;
}

bool MutexWaits::AwaitWaiter(const std::string& name, std::uint32_t timeoutMilliseconds) {
  WaitState& s = State();
  std::unique_lock<std::mutex> hold(s.lock);
  return s.entered.wait_for(hold, std::chrono::milliseconds(timeoutMilliseconds), [&s, &name] {
    const auto found = s.waiting.find(name);
    return found != s.waiting.end() && found->second > 0;
  });
}

bool MutexWaits::Enter(const std::string& name) {
  WaitState& s = State();
  if (!s.counting.load(std::memory_order_relaxed)) return false;
  {
    std::lock_guard<std::mutex> guard(s.lock);
    ++s.waiting[name];
    ++s.started[name];
  }
  s.entered.notify_all();
  return true;
}

void MutexWaits::Leave(const std::string& name) {
  WaitState& s = State();
  std::lock_guard<std::mutex> guard(s.lock);
  const auto found = s.waiting.find(name);
  if (found != s.waiting.end() && found->second > 0) --found->second;
}

}  // namespace Tovrel
