#include "platform/ThreadPriority.h"

#include <windows.h>

namespace Tovrel {

bool ThreadPriority::LowerCurrentThread() {
  return SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_BELOW_NORMAL) != 0;
}

bool ThreadPriority::CurrentThreadIsLowered() {
  const int priority = GetThreadPriority(GetCurrentThread());
  return priority != THREAD_PRIORITY_ERROR_RETURN && priority < THREAD_PRIORITY_NORMAL;
}

}  // namespace Tovrel
