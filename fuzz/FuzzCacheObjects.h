// The named mutexes and shared time stamp of one cache file, held open for
// a fuzz run under the names every cache object of that file uses: each
// input's cache objects then join system objects that exist instead of
// creating and removing them. The thread that makes it also owns both
// mutexes (the file's and the time stamp's) for the whole run, as a host
// thread that nests its calls would: the cache's waits re-enter them
// without a system call, so that the run spends its time on the file,
// which is what it explores.
//
// Made once per file (a function's static) and never destroyed; used by
// the fuzzing thread only.
#ifndef TOVREL_FUZZ_FUZZCACHEOBJECTS_H
#define TOVREL_FUZZ_FUZZCACHEOBJECTS_H

#include <cstdlib>
#include <string>

#include "effectcache/CacheFileNames.h"
#include "host/MutexObject.h"
#include "tovrel/MultiProcessTimeStamp.h"

namespace TovrelFuzz {

class FuzzCacheObjects {
 public:
  explicit FuzzCacheObjects(const std::wstring& file)
      : mutex_(Tovrel::CacheFileNames::FileMutexName(file).c_str()),
        stampName_(Tovrel::CacheFileNames::TimeStampName(file)),
        stampMutex_((stampName_ + L"_mutex").c_str()) {
    const bool owned =
        stamp_.Initialize(stampName_.c_str()) &&
        mutex_.Acquire(NorvaneSDK::Util::MutexObject::kInfinite) == NorvaneSDK::Util::MutexObject::kWaitObject0 &&
        stampMutex_.Acquire(NorvaneSDK::Util::MutexObject::kInfinite) == NorvaneSDK::Util::MutexObject::kWaitObject0;
    if (!owned) std::abort();
  }

 private:
  NorvaneSDK::Util::MutexObject mutex_;
  std::wstring stampName_;
  Tovrel::MultiProcessTimeStamp stamp_;
  NorvaneSDK::Util::MutexObject stampMutex_;
};

}  // namespace TovrelFuzz

#endif
