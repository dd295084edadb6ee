#include "platform/PlatformProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

extern char** environ;

namespace Tovrel {

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kPollInterval = std::chrono::milliseconds(2);
constexpr std::uint32_t kReapBoundMilliseconds = 10000;

int ExitCodeOf(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

}  // namespace

PlatformProcess::PlatformProcess() : handle_(0), id_(0), ended_(false), exitCode_(0) {}

void PlatformProcess::RedirectOutput(const std::string& outputFile, const std::string& errorFile) {
  outputFile_ = outputFile;
  errorFile_ = errorFile;
}

PlatformProcess::~PlatformProcess() {
  if (!IsRunning()) return;
  int ignored = 0;
  Kill();
  Wait(kReapBoundMilliseconds, &ignored);
}

void PlatformProcess::ExitNow(int exitCode) { _exit(exitCode); }

std::string PlatformProcess::CurrentExecutable() {
  char path[4096];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof(path) - 1);
  if (length <= 0) return std::string();
  return std::string(path, static_cast<std::size_t>(length));
}

bool PlatformProcess::Start(const std::string& program, const std::vector<std::string>& arguments) {
  if (handle_ != 0) {
    errno = EBUSY;
    return false;
  }
  std::vector<std::string> words{program};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(&word[0]);
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  const int flags = O_WRONLY | O_CREAT | O_TRUNC;
  if (!outputFile_.empty()) posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outputFile_.c_str(), flags, 0644);
  if (!errorFile_.empty()) posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errorFile_.c_str(), flags, 0644);
  pid_t pid = 0;
  const int error = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    errno = error;
    return false;
  }
  handle_ = pid;
  id_ = static_cast<std::uint32_t>(pid);
  return true;
}

bool PlatformProcess::Wait(std::uint32_t timeoutMilliseconds, int* exitCode) {
  if (handle_ == 0) {
    errno = ECHILD;
    return false;
  }
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMilliseconds);
  while (!ended_) {
    int status = 0;
    const pid_t done = waitpid(static_cast<pid_t>(handle_), &status, WNOHANG);
    if (done == static_cast<pid_t>(handle_)) {
      ended_ = true;
      exitCode_ = ExitCodeOf(status);
    } else if (done < 0 && errno != EINTR) {
      return false;
    } else if (Clock::now() >= deadline) {
      return false;
    } else {
      std::this_thread::sleep_for(kPollInterval);
    }
  }
  *exitCode = exitCode_;
  return true;
}

bool PlatformProcess::Kill() {
  if (!IsRunning()) {
    errno = ESRCH;
    return false;
  }
  return kill(static_cast<pid_t>(handle_), SIGKILL) == 0;
}

}  // namespace Tovrel
