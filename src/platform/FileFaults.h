// FileFaults: makes chosen calls of the platform file layer fail, for tests.
//
// A test arms a fault: "the Nth call of this kind from now on fails with
// this error number" (once, or for that call and every later one of the
// kind, which plays a full or broken device). The platform file layer asks
// Trip() before every real call. With nothing armed, Trip() costs one
// relaxed atomic load. The layer also counts calls of each kind, so a test
// can first measure how many calls an operation makes and then fail each of
// them in turn.
//
// Process-wide state. Thread-safety: every member may be called from any
// thread.
#ifndef TOVREL_PLATFORM_FILEFAULTS_H
#define TOVREL_PLATFORM_FILEFAULTS_H

#include <cstdint>

namespace Tovrel {

enum class FileCall : int { kOpen, kSeek, kTell, kRead, kWrite, kFlush, kClose, kAny };

class FileFaults {
 public:
  // The nth call (1 = the next) of kind `call` (kAny: of any kind) fails
  // with error number `error`; with `sticky`, every later one of the kind too.
  static void FailNth(FileCall call, std::uint64_t n, int error, bool sticky = false);

  // Zeroes the call counters and starts counting (FailNth starts it too).
  static void StartCounting();

  // Disarms every fault, zeroes the call counters and stops counting.
  static void Reset();

  // Calls of the kind made since the last Reset (kAny: all kinds).
  static std::uint64_t Calls(FileCall call);

  // Counts one call of kind `call`; true when it must fail, with *error set.
  static bool Trip(FileCall call, int* error);
};

}  // namespace Tovrel

#endif
