#include "support/ChildLauncher.h"

#include <atomic>
#include <chrono>
#include <fstream>
#include <thread>

#include "platform/SystemValues.h"
#include "platform/WideText.h"

namespace Tovrel {
namespace Testing {

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kPollInterval = std::chrono::milliseconds(5);

bool WaitForFileWhile(const std::filesystem::path& file, PlatformProcess* child) {
  const Clock::time_point deadline =
      Clock::now() + std::chrono::milliseconds(ChildLauncher::kBoundMilliseconds);
  while (Clock::now() < deadline) {
    std::error_code ignored;
    if (std::filesystem::exists(file, ignored)) return true;
    int exitCode = 0;
    if (child != nullptr && child->Wait(0, &exitCode)) return std::filesystem::exists(file, ignored);
    std::this_thread::sleep_for(kPollInterval);
  }
  return false;
}

}  // namespace

std::unique_ptr<PlatformProcess> ChildLauncher::StartProgram(const std::string& program,
                                                             const std::vector<std::string>& arguments,
                                                             const std::string& outputFile,
                                                             const std::string& errorFile) {
  for (int attempt = 0; attempt < 5; ++attempt) {
    auto child = std::make_unique<PlatformProcess>();
    child->RedirectOutput(outputFile, errorFile);
    if (child->Start(program, arguments)) return child;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  return nullptr;
}

std::unique_ptr<PlatformProcess> ChildLauncher::Start(const std::string& role,
                                                      const std::vector<std::string>& arguments,
                                                      const std::string& outputFile, const std::string& errorFile) {
  std::vector<std::string> words{"--tovrel-child=" + role};
  words.insert(words.end(), arguments.begin(), arguments.end());
  return StartProgram(PlatformProcess::CurrentExecutable(), words, outputFile, errorFile);
}

int ChildLauncher::Finish(PlatformProcess& child, std::uint32_t boundMilliseconds) {
  int exitCode = 0;
  if (child.Wait(boundMilliseconds, &exitCode)) return exitCode;
  child.Kill();
  child.Wait(boundMilliseconds, &exitCode);
  return kHung;
}

bool ChildLauncher::WaitForFile(const std::filesystem::path& file, PlatformProcess& child) {
  return WaitForFileWhile(file, &child);
}

bool ChildLauncher::WaitForFile(const std::filesystem::path& file) {
  return WaitForFileWhile(file, nullptr);
}

void ChildLauncher::Signal(const std::filesystem::path& file) { std::ofstream marker(file); }

std::string ChildLauncher::UniqueName(const std::string& stem) {
  static std::atomic<unsigned> serial{0};
  return stem + "_" + std::to_string(SystemValues::ProcessId()) + "_" + std::to_string(serial++);
}

std::wstring ChildLauncher::UniqueWideName(const std::string& stem) { return Wide(UniqueName(stem)); }

std::wstring ChildLauncher::Wide(const std::string& text) { return WideText::FromUtf8(text); }

std::string ChildLauncher::Narrow(const std::wstring& text) { return WideText::ToUtf8(text); }

}  // namespace Testing
}  // namespace Tovrel
