#include "platform/PlatformProcess.h"

#include <windows.h>

#include "platform/WideText.h"

namespace Tovrel {

namespace {

constexpr std::uint32_t kReapBoundMilliseconds = 10000;
constexpr DWORD kPathCapacity = 32768;

HANDLE AsHandle(std::intptr_t handle) { return reinterpret_cast<HANDLE>(handle); }

// One argument quoted for the command line so that the C runtime of the
// child splits it back exactly: backslashes double only before a quote.
std::wstring Quoted(const std::wstring& argument) {
  if (!argument.empty() && argument.find_first_of(L" \t\n\v\"") == std::wstring::npos) return argument;
  std::wstring out = L"\"";
  for (std::size_t i = 0;; ++i) {
    std::size_t backslashes = 0;
    for (; i < argument.size() && argument[i] == L'\\'; ++i) ++backslashes;
    if (i == argument.size()) {
      out.append(backslashes * 2, L'\\');
      break;
    }
    if (argument[i] == L'"') {
      out.append(backslashes * 2 + 1, L'\\');
    } else {
      out.append(backslashes, L'\\');
    }
    out.push_back(argument[i]);
  }
  out.push_back(L'"');
  return out;
}

// A file that a child's standard stream is sent to: opened for writing
// with an inheritable handle, or this process's own stream when no file
// is named. Closed (this process's copy) when the object dies.
class InheritableFile {
 public:
  InheritableFile(const std::string& path, DWORD standard)
      : handle_(GetStdHandle(standard)), owned_(false), failed_(false) {
    if (path.empty()) return;
    SECURITY_ATTRIBUTES inherit{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    handle_ = CreateFileW(WideText::FromUtf8(path).c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                          &inherit, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    owned_ = handle_ != INVALID_HANDLE_VALUE;
    failed_ = !owned_;
  }
  ~InheritableFile() {
    if (owned_) CloseHandle(handle_);
  }
  InheritableFile(const InheritableFile&) = delete;
  InheritableFile& operator=(const InheritableFile&) = delete;

  bool IsOpen() const { return !failed_; }
  HANDLE Handle() const { return handle_; }

 private:
  HANDLE handle_;
  bool owned_;   // handle_ is a file opened here
  bool failed_;  // a file was named and could not be opened
};

}  // namespace

PlatformProcess::PlatformProcess() : handle_(0), id_(0), ended_(false), exitCode_(0) {}

void PlatformProcess::RedirectOutput(const std::string& outputFile, const std::string& errorFile) {
  outputFile_ = outputFile;
  errorFile_ = errorFile;
}

PlatformProcess::~PlatformProcess() {
  if (handle_ == 0) return;
  if (IsRunning()) {
    int ignored = 0;
    Kill();
    Wait(kReapBoundMilliseconds, &ignored);
  }
  CloseHandle(AsHandle(handle_));
}

void PlatformProcess::ExitNow(int exitCode) {
  TerminateProcess(GetCurrentProcess(), static_cast<UINT>(exitCode));
  ExitProcess(static_cast<UINT>(exitCode));  // not reached: the process has ended
}

std::string PlatformProcess::CurrentExecutable() {
  std::wstring path(kPathCapacity, L'\0');
  const DWORD length = GetModuleFileNameW(nullptr, &path[0], kPathCapacity);
  path.resize(length < kPathCapacity ? length : 0);
  return WideText::ToUtf8(path);
}

bool PlatformProcess::Start(const std::string& program, const std::vector<std::string>& arguments) {
  if (handle_ != 0) {
    SetLastError(ERROR_BUSY);
    return false;
  }
  const std::wstring application = WideText::FromUtf8(program);
  std::wstring commandLine = Quoted(application);
  for (const std::string& argument : arguments) commandLine += L" " + Quoted(WideText::FromUtf8(argument));
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  const bool redirect = !outputFile_.empty() || !errorFile_.empty();
  InheritableFile output(outputFile_, STD_OUTPUT_HANDLE);
  InheritableFile error(errorFile_, STD_ERROR_HANDLE);
  if (!output.IsOpen() || !error.IsOpen()) return false;
  if (redirect) {
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = output.Handle();
    startup.hStdError = error.Handle();
  }
  PROCESS_INFORMATION started{};
  if (!CreateProcessW(application.c_str(), &commandLine[0], nullptr, nullptr, redirect ? TRUE : FALSE, 0,
                      nullptr, nullptr, &startup, &started)) {
    return false;
  }
  CloseHandle(started.hThread);
  handle_ = reinterpret_cast<std::intptr_t>(started.hProcess);
  id_ = static_cast<std::uint32_t>(started.dwProcessId);
  return true;
}

bool PlatformProcess::Wait(std::uint32_t timeoutMilliseconds, int* exitCode) {
  if (handle_ == 0) {
    SetLastError(ERROR_INVALID_HANDLE);
    return false;
  }
  if (!ended_) {
    if (WaitForSingleObject(AsHandle(handle_), timeoutMilliseconds) != WAIT_OBJECT_0) return false;
    DWORD code = 0;
    if (!GetExitCodeProcess(AsHandle(handle_), &code)) return false;
    ended_ = true;
    exitCode_ = static_cast<int>(code);
  }
  *exitCode = exitCode_;
  return true;
}

bool PlatformProcess::Kill() {
  if (!IsRunning()) {
    SetLastError(ERROR_INVALID_HANDLE);
    return false;
  }
  return TerminateProcess(AsHandle(handle_), kKilledExitCode) != FALSE;
}

}  // namespace Tovrel
