// FileFaults: makes chosen calls of the platform file layer fail, for tests.
//
// A test arms a fault: "the Nth call of this kind from now on fails with
// this error number" (once, or for that call and every later one of the
// kind, which plays a full or broken device), or "the power goes at the
// Nth call of this kind": the current file system's CutPower runs before
// that call (a simulated power cut in memory, the end of the process on
// the system's own file system) and the call fails with EIO. The platform
// file layer asks Trip() before every real call. With nothing armed,
// Trip() costs one relaxed atomic load. The layer also counts calls of
// each kind, so a test can first measure how many calls an operation makes
// and then fail each of them in turn. A test may also fix the free-space
// figure that the layer reports.
//
// Process-wide state. Thread-safety: every member may be called from any
// thread.
#ifndef TOVREL_PLATFORM_FILEFAULTS_H
#define TOVREL_PLATFORM_FILEFAULTS_H

#include <cstdint>
#include <functional>

namespace Tovrel {

enum class FileCall : int { kOpen, kSeek, kTell, kRead, kWrite, kFlush, kClose, kSync, kTruncate, kRemove, kRename, kAny };

class FileFaults {
 public:
  // The nth call (1 = the next) of kind `call` (kAny: of any kind) fails
  // with error number `error`; with `sticky`, every later one of the kind too.
  static void FailNth(FileCall call, std::uint64_t n, int error, bool sticky = false);

  // The power goes just before the nth call (1 = the next) of kind `call`.
  static void CutPowerAtNth(FileCall call, std::uint64_t n);

  // Just before the nth call (1 = the next) of kind `call`, that call's
  // thread runs `pause` (once), then makes the call: a test holds a thread
  // at a chosen point of its work, say a save between its writes and its
  // sync, and looks at what other threads do meanwhile.
  static void PauseAtNth(FileCall call, std::uint64_t n, std::function<void()> pause);

  // Zeroes the call counters and starts counting (FailNth starts it too).
  static void StartCounting();

  // Disarms every fault, forgets the free-space figure, zeroes the call
  // counters and stops counting.
  static void Reset();

  // Calls of the kind made since the last Reset (kAny: all kinds).
  static std::uint64_t Calls(FileCall call);

  // From now on the layer reports `bytes` as the free space of every volume.
  static void SetAvailableBytes(std::uint64_t bytes);
  // True, with the figure in *bytes, when a test has set one.
  static bool AvailableBytesOverride(std::uint64_t* bytes);

  // The kind of the call the last armed fault failed (kAny: none since Reset).
  static FileCall LastFailed();

  // Counts one call of kind `call`; true when it must fail, with *error set.
  static bool Trip(FileCall call, int* error);

 private:
  // Trip's count and fault; `pause` gets the pause to run, if this call is its.
  static bool Count(FileCall call, int* error, std::function<void()>* pause);
};

}  // namespace Tovrel

#endif
