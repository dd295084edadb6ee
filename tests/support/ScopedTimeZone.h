// ScopedTimeZone: sets the TZ environment variable of this process (and
// has the C library read it again) for a test's scope, then puts back
// what was there. POSIX rules such as "UTC0" or "EST5EDT" work on both
// systems; the Windows C runtime reads TZ the same way, but the system's
// own local time (GetLocalTime) does not follow it there.
//
// Not thread-safe: the environment is the process's.
#ifndef TOVREL_TESTS_SCOPEDTIMEZONE_H
#define TOVREL_TESTS_SCOPEDTIMEZONE_H

#include <string>

namespace Tovrel {
namespace Testing {

class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(const std::string& rule);
  ~ScopedTimeZone();
  ScopedTimeZone(const ScopedTimeZone&) = delete;
  ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

 private:
  static void Set(const std::string* value);

  bool had_;
  std::string previous_;
};

}  // namespace Testing
}  // namespace Tovrel

#endif
