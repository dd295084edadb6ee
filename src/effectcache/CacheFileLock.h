// CacheFileLock: the named mutex that guards one cache file, and the
// file's shared save counter (SaveCounter) that lets searches read the
// file without it.
//
// Every process that writes the file holds a Hold and declares it: a hold
// taken to write (Intent::kWrite), or one taken to read that is about to
// write (WillWrite, before a reload rolls back a journal, say), makes the
// counter odd and new; the end of the outermost hold of the name in this
// process makes it even and new again. A hold that only read leaves the
// counter as it found it (even it up, when a holder that died left it odd:
// the file was looked at under the lock meanwhile), so readers that take
// the lock now and then do not send each other to it.
//
// A reader that takes no lock compares Observe() before and after its reads
// with the LastRelease() of its own last hold: equal and even, no one wrote
// between, so the file is what that hold left. And a holder whose view of
// the file came from its last hold asks HeldElsewhereSince(): false, no one
// wrote since; true, it checks the file before it trusts its view (a
// writer that died after its commit point never told anyone by the shared
// time stamp).
//
// A Hold is refused (IsOwner false) when the mutex cannot be had or the
// counter cannot be made: a process without the counter would write
// behind the backs of readers that trust it.
//
// Owned by its user (the cache object, the tool's locked package) for the
// life of its use of the file. Thread-safety: Observe from any thread; a
// Hold belongs to the thread that made it, and the holds of one object are
// serialised by its owner (LastRelease is read under the owner's lock).
#ifndef TOVREL_EFFECTCACHE_CACHEFILELOCK_H
#define TOVREL_EFFECTCACHE_CACHEFILELOCK_H

#include <cstdint>
#include <memory>
#include <string>

#include "host/MutexObject.h"
#include "shared/SaveCounter.h"

namespace Tovrel {

class CacheFileLock {
 public:
  // No counter value is this: it is odd.
  static constexpr std::uint64_t kUnknown = 1;
  enum class Intent { kRead, kWrite };

  // Names the mutex and the counter after the cache file (CacheFileNames);
  // makes neither yet.
  explicit CacheFileLock(const std::wstring& cacheFilePath);
  ~CacheFileLock();
  CacheFileLock(const CacheFileLock&) = delete;
  CacheFileLock& operator=(const CacheFileLock&) = delete;

  class Hold {
   public:
    explicit Hold(CacheFileLock& lock, Intent intent = Intent::kWrite);
    ~Hold();
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;
    bool IsOwner() const { return owner_; }

   private:
    CacheFileLock& lock_;
    bool mutexHeld_;
    bool owner_;
    bool outermost_;  // of this object's holds
  };

  // During a hold of this object: the hold may write from now on.
  void WillWrite();
  // During a hold of this object: true when someone may have written the
  // file since this object's last hold ended (or it never held the lock).
  bool HeldElsewhereSince() const { return acquiredAt_ != lastRelease_; }
  // The counter now (kUnknown without one). Lock-free, no system call.
  std::uint64_t Observe() const { return counter_.Load(); }
  // The even value the end of this object's last hold left; kUnknown
  // before one, or when it ended inside another object's hold.
  std::uint64_t LastRelease() const { return lastRelease_; }

 private:
  bool EnsureCounter();
  void Release(bool outermostOfName);

  std::wstring counterName_;
  std::unique_ptr<NorvaneSDK::Util::MutexObject> mutex_;  // never null
  SaveCounter counter_;
  int depth_ = 0;                      // this object's holds now
  std::uint64_t acquiredAt_ = kUnknown;  // the counter when this object's outermost hold began
  std::uint64_t lastRelease_ = kUnknown;
};

}  // namespace Tovrel

#endif
