// PlatformProcess: a child process that this process starts, waits for and
// may kill; used by the tests that need several processes.
//
// Owns the child: destroying a PlatformProcess whose child still runs kills
// it and reaps it, so that no test leaves a process behind. A killed child's
// exit code is 137 on both systems (128 + SIGKILL, as a POSIX shell shows it);
// a POSIX child ended by another signal reports 128 + that signal.
// Thread-safety: none; one thread uses an object at a time.
#ifndef TOVREL_PLATFORM_PLATFORMPROCESS_H
#define TOVREL_PLATFORM_PLATFORMPROCESS_H

#include <cstdint>
#include <string>
#include <vector>

namespace Tovrel {

class PlatformProcess {
 public:
  // Exit code of a killed child.
  static constexpr int kKilledExitCode = 137;

  PlatformProcess();
  ~PlatformProcess();
  PlatformProcess(const PlatformProcess&) = delete;
  PlatformProcess& operator=(const PlatformProcess&) = delete;

  // UTF-8 path of the running program.
  static std::string CurrentExecutable();

  // Ends this process at once with `exitCode`: no destructors, no exit
  // handlers, no flushing of buffered output (as a crash or a kill would).
  [[noreturn]] static void ExitNow(int exitCode);

  // Starts `program` (UTF-8 path) with `arguments`; false, with the reason in
  // SystemError::Last(), when it cannot. One start per object.
  bool Start(const std::string& program, const std::vector<std::string>& arguments);

  // Before Start: the child's standard output and standard error go to
  // these files (UTF-8 paths, created or truncated) instead of this
  // process's; an empty path keeps that stream shared with this process.
  void RedirectOutput(const std::string& outputFile, const std::string& errorFile);

  // Waits at most `timeoutMilliseconds` for the child to end. True, with its
  // exit code in *exitCode, when it has ended (at once when it already had).
  bool Wait(std::uint32_t timeoutMilliseconds, int* exitCode);

  // Ends the child at once (SIGKILL / TerminateProcess); false when there is
  // none running.
  bool Kill();

  // The child's process id; 0 before Start.
  std::uint32_t Id() const { return id_; }

 private:
  bool IsRunning() const { return handle_ != 0 && !ended_; }

  // Invariant: handle_ is 0 exactly when no child was started.
  std::intptr_t handle_;  // pid on POSIX, process HANDLE on Windows
  std::uint32_t id_;      // the child's process id
  bool ended_;            // the child has ended and exitCode_ holds its code
  int exitCode_;
  std::string outputFile_;  // empty: the child shares this process's stream
  std::string errorFile_;
};

}  // namespace Tovrel

#endif
