#include "platform/ThreadPriority.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace Tovrel {

namespace {

id_t ThisThread() { return static_cast<id_t>(syscall(SYS_gettid)); }

}  // namespace

bool ThreadPriority::LowerCurrentThread() {
  errno = 0;
  const int now = getpriority(PRIO_PROCESS, ThisThread());
  if (now == -1 && errno != 0) return false;
  if (now >= kBackgroundNice) return true;
  return setpriority(PRIO_PROCESS, ThisThread(), kBackgroundNice) == 0;
}

bool ThreadPriority::CurrentThreadIsLowered() {
  errno = 0;
  const int now = getpriority(PRIO_PROCESS, ThisThread());
  return !(now == -1 && errno != 0) && now > 0;
}

}  // namespace Tovrel
