// MutexProbe: looks at a named mutex from outside the test's own thread.
//
// AcquireFromAnotherThread tries the mutex from a thread of its own;
// StartHolder starts a child process (role "mutex_probe_hold", registered
// by MutexProbe.cpp, so every test program that uses this class has it) that
// takes the mutex and holds it until it is killed. Stateless; call from the
// test's thread.
#ifndef TOVREL_TESTS_MUTEXPROBE_H
#define TOVREL_TESTS_MUTEXPROBE_H

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "platform/PlatformProcess.h"

namespace Tovrel {
namespace Testing {

class MutexProbe {
 public:
  // Acquire(timeout) of mutex `name` from a new thread, released again at
  // once when it succeeded; the result.
  static std::uint32_t AcquireFromAnotherThread(const std::wstring& name, std::uint32_t timeout);

  // A child that holds mutex `name` (UTF-8), once it holds it; null when it
  // could not be started or did not get the mutex. `workDir` takes its marker.
  static std::unique_ptr<PlatformProcess> StartHolder(const std::string& name,
                                                      const std::filesystem::path& workDir);
  // A child that takes mutex `name` and is killed holding it: Windows
  // then reports the mutex abandoned to its next owner, once, and POSIX
  // hands it on without a word. False when that could not be staged.
  static bool KillAHolder(const std::wstring& name, const std::filesystem::path& workDir);
};

}  // namespace Testing
}  // namespace Tovrel

#endif
