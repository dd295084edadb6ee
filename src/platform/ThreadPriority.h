// ThreadPriority: lowers the calling thread's scheduling priority, for
// work that may wait for the host's threads but must not make them wait:
// a background save's compression and writes.
//
// On Linux a thread has a nice value of its own (setpriority on its
// thread id); the calling thread's goes up by kBackgroundNice, as far as
// the system lets it. On Windows the thread's priority becomes
// THREAD_PRIORITY_BELOW_NORMAL. A priority once lowered stays so for the
// thread's life. Stateless; safe from any thread.
#ifndef TOVREL_PLATFORM_THREADPRIORITY_H
#define TOVREL_PLATFORM_THREADPRIORITY_H

namespace Tovrel {

class ThreadPriority {
 public:
  static constexpr int kBackgroundNice = 10;
  // True when the priority was lowered (or was that low already).
  static bool LowerCurrentThread();
  // True when the calling thread's priority is below the normal one.
  static bool CurrentThreadIsLowered();
};

}  // namespace Tovrel

#endif
