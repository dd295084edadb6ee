#include "support/MutexProbe.h"

#include <chrono>
#include <future>
#include <thread>

#include "host/MutexObject.h"
#include "support/ChildLauncher.h"
#include "support/ChildProcess.h"

namespace Tovrel {
namespace Testing {

using NorvaneSDK::Util::MutexObject;

// Takes mutex argv[0], creates marker file argv[1], and holds on until killed.
TOVREL_CHILD_ROLE(mutex_probe_hold) {
  if (argc < 2) return 99;
  MutexObject mutex(ChildLauncher::Wide(argv[0]).c_str());
  if (mutex.Acquire(MutexObject::kInfinite) != MutexObject::kWaitObject0) return 1;
  ChildLauncher::Signal(argv[1]);
  std::this_thread::sleep_for(std::chrono::milliseconds(ChildLauncher::kBoundMilliseconds));
  return 0;
}

std::uint32_t MutexProbe::AcquireFromAnotherThread(const std::wstring& name, std::uint32_t timeout) {
  return std::async(std::launch::async, [&] {
           MutexObject mutex(name.c_str());
           const std::uint32_t result = mutex.Acquire(timeout);
           if (result == MutexObject::kWaitObject0) mutex.Release();
           return result;
         })
      .get();
}

std::unique_ptr<PlatformProcess> MutexProbe::StartHolder(const std::string& name,
                                                         const std::filesystem::path& workDir) {
  const std::filesystem::path holding = workDir / ("holding_" + ChildLauncher::UniqueName("mutex"));
  auto child = ChildLauncher::Start("mutex_probe_hold", {name, holding.string()});
  if (child == nullptr || !ChildLauncher::WaitForFile(holding, *child)) return nullptr;
  return child;
}

bool MutexProbe::KillAHolder(const std::wstring& name, const std::filesystem::path& workDir) {
  auto child = StartHolder(ChildLauncher::Narrow(name), workDir);
  return child != nullptr && child->Kill() && ChildLauncher::Finish(*child) == PlatformProcess::kKilledExitCode;
}

}  // namespace Testing
}  // namespace Tovrel
