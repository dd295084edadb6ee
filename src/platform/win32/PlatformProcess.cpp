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

}  // namespace

PlatformProcess::PlatformProcess() : handle_(0), id_(0), ended_(false), exitCode_(0) {}

PlatformProcess::~PlatformProcess() {
  if (handle_ == 0) return;
  if (IsRunning()) {
    int ignored = 0;
    Kill();
    Wait(kReapBoundMilliseconds, &ignored);
  }
  CloseHandle(AsHandle(handle_));
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
  PROCESS_INFORMATION started{};
  if (!CreateProcessW(application.c_str(), &commandLine[0], nullptr, nullptr, FALSE, 0, nullptr,
                      nullptr, &startup, &started)) {
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
