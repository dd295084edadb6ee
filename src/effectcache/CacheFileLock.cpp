#include "effectcache/CacheFileLock.h"

#include <map>
#include <mutex>

#include "effectcache/CacheFileNames.h"

namespace Tovrel {

namespace {

using NorvaneSDK::Util::MutexObject;

// The holds of each named mutex in this process, whichever objects made
// them (one thread may hold a file's mutex through several objects at
// once), and whether one of them made the counter odd: it moves once per
// outermost hold of the name, and only for holds that write.
class NameHolds {
 public:
  // The depth before this hold.
  int Enter(const std::wstring& name) {
    std::lock_guard<std::mutex> guard(lock_);
    return states_[name].depth++;
  }
  // True for the first writer of the outermost hold: it must make the
  // counter odd.
  bool StartWriting(const std::wstring& name) {
    std::lock_guard<std::mutex> guard(lock_);
    State& state = states_[name];
    const bool first = !state.writing;
    state.writing = true;
    return first;
  }
  // Ends a hold: true when it was the outermost one of the name, with
  // *wrote telling whether any hold of it wrote.
  bool Leave(const std::wstring& name, bool* wrote) {
    std::lock_guard<std::mutex> guard(lock_);
    State& state = states_[name];
    *wrote = state.writing;
    if (--state.depth > 0) return false;
    states_.erase(name);
    return true;
  }

 private:
  struct State {
    int depth = 0;
    bool writing = false;
  };
  std::mutex lock_;
  std::map<std::wstring, State> states_;
};

NameHolds& Holds() {
  // Never destroyed: holds may end while the process exits.
  static NameHolds* holds = new NameHolds;
  return *holds;
}

}  // namespace

CacheFileLock::CacheFileLock(const std::wstring& cacheFilePath)
    : counterName_(CacheFileNames::SaveCounterName(cacheFilePath)),
      mutex_(new MutexObject(CacheFileNames::FileMutexName(cacheFilePath).c_str())) {}

CacheFileLock::~CacheFileLock() = default;

bool CacheFileLock::EnsureCounter() {
  return counter_.IsReady() || counter_.Initialize(counterName_.c_str());
}

void CacheFileLock::WillWrite() {
  if (depth_ > 0 && counter_.IsReady() && Holds().StartWriting(counterName_)) counter_.Begin();
}

CacheFileLock::Hold::Hold(CacheFileLock& lock, Intent intent)
    : lock_(lock), mutexHeld_(false), owner_(false), outermost_(false) {
  const std::uint32_t result = lock_.mutex_->Acquire(MutexObject::kInfinite);
  mutexHeld_ = result == MutexObject::kWaitObject0 || result == MutexObject::kWaitAbandoned;
  if (!mutexHeld_) return;
  // A hold that cannot be made (no memory for its bookkeeping) lets the
  // mutex go before the failure leaves: no destructor would.
  bool entered = false;
  try {
    Holds().Enter(lock_.counterName_);
    entered = true;
    outermost_ = lock_.depth_++ == 0;
    if (!lock_.EnsureCounter()) return;
  } catch (...) {
    if (entered) {
      --lock_.depth_;
      bool wrote = false;
      Holds().Leave(lock_.counterName_, &wrote);
    }
    mutexHeld_ = false;
    lock_.mutex_->Release();
    throw;
  }
  owner_ = true;
  if (outermost_) lock_.acquiredAt_ = lock_.counter_.Load();
  if (intent == Intent::kWrite) lock_.WillWrite();
}

CacheFileLock::Hold::~Hold() {
  if (!mutexHeld_) return;
  --lock_.depth_;
  bool wrote = false;
  const bool outermostOfName = Holds().Leave(lock_.counterName_, &wrote);
  if (outermost_) {
    if (!owner_) {
      lock_.lastRelease_ = kUnknown;
    } else if (!outermostOfName) {
      lock_.lastRelease_ = kUnknown;  // the outer hold's end moves the counter yet
    } else if (wrote || lock_.counter_.Load() % 2 != 0) {
      // A holder that died left it odd; this hold looked at the file
      // under the lock since, so it is even again, and new.
      lock_.lastRelease_ = lock_.counter_.End();
    } else {
      lock_.lastRelease_ = lock_.counter_.Load();
    }
  }
  lock_.mutex_->Release();
}

}  // namespace Tovrel
