#include "platform/FileFaults.h"

#include <atomic>
#include <cerrno>
#include <functional>
#include <mutex>

#include "platform/FileSystem.h"

namespace Tovrel {

namespace {

constexpr int kKinds = static_cast<int>(FileCall::kAny) + 1;

struct FaultState {
  std::mutex lock;
  std::atomic<bool> counting{false};  // true from the first FailNth until Reset
  std::atomic<bool> figureSet{false};
  std::uint64_t availableBytes = 0;
  std::uint64_t calls[kKinds] = {};
  bool armed = false;
  bool cutPower = false;  // the armed fault cuts the power instead of failing one call
  FileCall call = FileCall::kAny;
  std::uint64_t failAt = 0;  // value of calls[call] at which to fail
  int error = 0;
  bool sticky = false;
  FileCall lastFailed = FileCall::kAny;
  // A pause: run once, before the call of kind pauseCall that brings its
  // count to pauseAt, on the calling thread.
  std::function<void()> pause;
  FileCall pauseCall = FileCall::kAny;
  std::uint64_t pauseAt = 0;
};

FaultState& State() {
  static FaultState state;
  return state;
}

void Arm(FileCall call, std::uint64_t n, int error, bool sticky, bool cutPower) {
  FaultState& s = State();
  std::lock_guard<std::mutex> guard(s.lock);
  s.counting.store(true, std::memory_order_relaxed);
  s.armed = n > 0;
  s.cutPower = cutPower;
  s.call = call;
  s.failAt = s.calls[static_cast<int>(call)] + n;
  s.error = error;
  s.sticky = sticky;
}

}  // namespace

void FileFaults::FailNth(FileCall call, std::uint64_t n, int error, bool sticky) {
  Arm(call, n, error, sticky, false);
}

void FileFaults::CutPowerAtNth(FileCall call, std::uint64_t n) { Arm(call, n, EIO, false, true); }

void FileFaults::PauseAtNth(FileCall call, std::uint64_t n, std::function<void()> pause) {
  FaultState& s = State();
  std::lock_guard<std::mutex> guard(s.lock);
  s.counting.store(true, std::memory_order_relaxed);
  s.pause = std::move(pause);
  s.pauseCall = call;
  s.pauseAt = s.calls[static_cast<int>(call)] + n;
}

void FileFaults::StartCounting() {
  FaultState& s = State();
  std::lock_guard<std::mutex> guard(s.lock);
  for (auto& c : s.calls) c = 0;
  s.counting.store(true, std::memory_order_relaxed);
}

void FileFaults::Reset() {
  FaultState& s = State();
  std::lock_guard<std::mutex> guard(s.lock);
  s.counting.store(false, std::memory_order_relaxed);
  s.figureSet.store(false, std::memory_order_relaxed);
  for (auto& c : s.calls) c = 0;
  s.armed = false;
  s.cutPower = false;
  s.lastFailed = FileCall::kAny;
  s.pause = nullptr;
}

std::uint64_t FileFaults::Calls(FileCall call) {
  FaultState& s = State();
  std::lock_guard<std::mutex> guard(s.lock);
  return s.calls[static_cast<int>(call)];
}

void FileFaults::SetAvailableBytes(std::uint64_t bytes) {
  FaultState& s = State();
  std::lock_guard<std::mutex> guard(s.lock);
  s.availableBytes = bytes;
  s.figureSet.store(true, std::memory_order_relaxed);
}

bool FileFaults::AvailableBytesOverride(std::uint64_t* bytes) {
  FaultState& s = State();
  if (!s.figureSet.load(std::memory_order_relaxed)) return false;
  std::lock_guard<std::mutex> guard(s.lock);
  *bytes = s.availableBytes;
  return true;
}

FileCall FileFaults::LastFailed() {
  FaultState& s = State();
  std::lock_guard<std::mutex> guard(s.lock);
  return s.lastFailed;
}

bool FileFaults::Trip(FileCall call, int* error) {
  FaultState& s = State();
  if (!s.counting.load(std::memory_order_relaxed)) return false;
  std::function<void()> pause;
  const bool fails = Count(call, error, &pause);
  if (pause) pause();
  return fails;
}

bool FileFaults::Count(FileCall call, int* error, std::function<void()>* pause) {
  FaultState& s = State();
  bool cut = false;
  {
    std::lock_guard<std::mutex> guard(s.lock);
    ++s.calls[static_cast<int>(call)];
    ++s.calls[static_cast<int>(FileCall::kAny)];
    if (s.pause && (s.pauseCall == call || s.pauseCall == FileCall::kAny) &&
        s.calls[static_cast<int>(s.pauseCall)] == s.pauseAt) {
      pause->swap(s.pause);
    }
    if (!s.armed || (s.call != call && s.call != FileCall::kAny)) return false;
    const std::uint64_t seen = s.calls[static_cast<int>(s.call)];
    if (seen < s.failAt || (seen > s.failAt && !s.sticky)) return false;
    if (!s.sticky) s.armed = false;
    *error = s.error;
    cut = s.cutPower;
    s.lastFailed = call;
  }
  if (cut) FileSystem::Current().CutPower();
  return true;
}

}  // namespace Tovrel
