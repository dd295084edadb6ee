#include "platform/NamedMutex.h"

#include <sys/file.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "platform/MutexWaits.h"
#include "platform/WideText.h"
#include "platform/posix/LockFile.h"

namespace Tovrel {

namespace {

using Clock = std::chrono::steady_clock;
using WaitResult = NamedMutex::WaitResult;

// How often a wait with a time limit retries the file lock.
constexpr auto kPollInterval = std::chrono::milliseconds(1);

// What this process knows of one named mutex; shared by all its NamedMutex
// objects of that name. The file lock is what other processes see; the
// owner field makes the lock re-entrant for one thread and makes the other
// threads of this process queue here rather than on the file.
struct Entry {
  explicit Entry(const std::string& name) : file(name, ".mutex") {}

  std::mutex guard;               // protects owner and depth
  std::condition_variable freed;  // notified when owner becomes empty
  // Invariant: depth > 0 only while owner is set and `file` holds the
  // exclusive lock; owner set with depth 0 means that thread is still
  // taking the file lock.
  std::thread::id owner;  // the owning (or claiming) thread; empty when none
  unsigned depth = 0;     // waits the owner has yet to release
  LockFile file;          // touched only by the owner, or with no NamedMutex left
};

// The process-wide table of entries by name. Deliberately never destroyed,
// so that NamedMutex objects of static lifetime can still close at exit.
struct Registry {
  std::mutex lock;
  std::map<std::string, std::weak_ptr<Entry>> entries;
};

Registry& TheRegistry() {
  static Registry* const registry = new Registry;
  return *registry;
}

std::shared_ptr<Entry> OpenEntry(const std::string& name) {
  Registry& registry = TheRegistry();
  std::lock_guard<std::mutex> hold(registry.lock);
  std::shared_ptr<Entry> entry = registry.entries[name].lock();
  if (entry) return entry;
  entry = std::make_shared<Entry>(name);
  if (!entry->file.Open()) {
    const int error = errno;
    registry.entries.erase(name);
    entry.reset();
    errno = error;
    return nullptr;
  }
  registry.entries[name] = entry;
  return entry;
}

// Drops one reference; the last one closes the lock file while the registry
// is locked, so that a new opener of the name gets a fresh entry.
void CloseEntry(std::shared_ptr<Entry>& entry, const std::string& name) {
  Registry& registry = TheRegistry();
  std::lock_guard<std::mutex> hold(registry.lock);
  entry.reset();
  const auto found = registry.entries.find(name);
  if (found != registry.entries.end() && found->second.expired()) registry.entries.erase(found);
}

enum class Claim { kReentered, kClaimed, kTimedOut };

// Makes the calling thread the one of this process that owns or takes the lock.
Claim ClaimInProcess(Entry& entry, bool forever, Clock::time_point deadline) {
  std::unique_lock<std::mutex> hold(entry.guard);
  const std::thread::id me = std::this_thread::get_id();
  if (entry.owner == me) {
    assert(entry.depth > 0);
    ++entry.depth;
    return Claim::kReentered;
  }
  const auto isFree = [&entry] { return entry.owner == std::thread::id(); };
  if (forever) {
    entry.freed.wait(hold, isFree);
  } else if (!entry.freed.wait_until(hold, deadline, isFree)) {
    return Claim::kTimedOut;
  }
  entry.owner = me;
  return Claim::kClaimed;
}

void UnclaimInProcess(Entry& entry) {
  const int error = errno;
  {
    std::lock_guard<std::mutex> hold(entry.guard);
    entry.owner = std::thread::id();
    entry.depth = 0;
  }
  entry.freed.notify_one();
  errno = error;
}

WaitResult PollFileLock(LockFile& file, Clock::time_point deadline) {
  for (;;) {
    if (file.Flock(LOCK_EX | LOCK_NB)) return WaitResult::kAcquired;
    if (errno != EWOULDBLOCK) return WaitResult::kFailed;
    const Clock::time_point now = Clock::now();
    if (now >= deadline) return WaitResult::kTimedOut;
    std::this_thread::sleep_for(std::min<Clock::duration>(kPollInterval, deadline - now));
  }
}

// Takes the exclusive lock on the name's lock file, which every process of
// the name has open (lock files are never removed).
WaitResult LockAcrossProcesses(LockFile& file, bool forever, Clock::time_point deadline) {
  if (forever) return file.Flock(LOCK_EX) ? WaitResult::kAcquired : WaitResult::kFailed;
  return PollFileLock(file, deadline);
}

// A wait for the mutex: among this process's threads first, then across
// processes.
WaitResult WaitOn(Entry& entry, std::uint32_t timeoutMilliseconds) {
  const bool forever = timeoutMilliseconds == NamedMutex::kInfinite;
  const Clock::time_point deadline =
      Clock::now() + std::chrono::milliseconds(forever ? 0 : timeoutMilliseconds);
  const Claim claim = ClaimInProcess(entry, forever, deadline);
  if (claim == Claim::kReentered) return WaitResult::kAcquired;
  if (claim == Claim::kTimedOut) return WaitResult::kTimedOut;
  const WaitResult result = LockAcrossProcesses(entry.file, forever, deadline);
  if (result != WaitResult::kAcquired) {
    UnclaimInProcess(entry);
    return result;
  }
  std::lock_guard<std::mutex> hold(entry.guard);
  entry.depth = 1;
  return result;
}

}  // namespace

struct NamedMutex::Native {
  std::string name;  // UTF-8 name, the registry key
  std::shared_ptr<Entry> entry;
};

NamedMutex::NamedMutex(const wchar_t* name) : native_(nullptr), openError_(0) {
  if (name == nullptr || name[0] == L'\0') {
    openError_ = EINVAL;
    return;
  }
  std::unique_ptr<Native> native(new Native{WideText::ToUtf8(name), nullptr});
  native->entry = OpenEntry(native->name);
  if (!native->entry) {
    openError_ = static_cast<std::uint32_t>(errno);
    return;
  }
  native_ = native.release();
}

NamedMutex::~NamedMutex() {
  if (native_ == nullptr) return;
  CloseEntry(native_->entry, native_->name);
  delete native_;
}

NamedMutex::WaitResult NamedMutex::Wait(std::uint32_t timeoutMilliseconds) {
  if (native_ == nullptr) {
    errno = EBADF;
    return WaitResult::kFailed;
  }
  const bool counted = MutexWaits::Enter(native_->name);
  const WaitResult result = WaitOn(*native_->entry, timeoutMilliseconds);
  if (counted) {
    const int error = errno;
    MutexWaits::Leave(native_->name);
    errno = error;
  }
  return result;
}

bool NamedMutex::Release() {
  if (native_ == nullptr) {
    errno = EBADF;
    return false;
  }
  Entry& entry = *native_->entry;
  std::unique_lock<std::mutex> hold(entry.guard);
  if (entry.owner != std::this_thread::get_id() || entry.depth == 0) {
    errno = EPERM;
    return false;
  }
  if (--entry.depth > 0) return true;
  entry.file.Flock(LOCK_UN);
  entry.owner = std::thread::id();
  hold.unlock();
  entry.freed.notify_one();
  return true;
}

}  // namespace Tovrel
