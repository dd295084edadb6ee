// MutexWaits: which named mutexes the threads of this process are waiting
// for, so that a test can see a thread reach its wait for a mutex that the
// test holds, instead of guessing how long the thread takes to get there.
//
// NamedMutex::Wait counts itself in, by the mutex's UTF-8 name, for as long
// as it waits, while counting is on (StartCounting until Reset); with
// counting off that costs one relaxed atomic load per wait.
//
// Process-wide state. Thread-safety: every member may be called from any
// thread.
#ifndef TOVREL_PLATFORM_MUTEXWAITS_H
#define TOVREL_PLATFORM_MUTEXWAITS_H

#include <cstdint>
#include <string>

namespace Tovrel {

class MutexWaits {
 public:
  // Forgets every count and starts counting.
  static void StartCounting();
  // Stops counting and forgets every count.
  static void Reset();

  // Waits for mutex `name` under way in this process now.
  static std::uint64_t UnderWay(const std::string& name);
  // Waits for mutex `name` begun since counting started.
  static std::uint64_t Started(const std::string& name);
  // Waits up to `timeoutMilliseconds` until a wait for mutex `name` is
  // under way; true when one is.
  static bool AwaitWaiter(const std::string& name, std::uint32_t timeoutMilliseconds);

  // Called by NamedMutex::Wait as its wait begins; true when it was
  // counted, and Leave must then be called as it ends.
  static bool Enter(const std::string& name);
  static void Leave(const std::string& name);
};

}  // namespace Tovrel

#endif
