#include "support/OpenHandles.h"

#ifdef _WIN32
#include <windows.h>

#include <cstdint>
#else
#include <filesystem>
#endif

#include "support/AllocationFaults.h"

namespace Tovrel {
namespace Testing {

std::size_t OpenHandles::Count() {
  // Counting allocates; it is not one of the allocations a test fails.
  const AllocationFaultPause pause;
#ifdef _WIN32
  DWORD handles = 0;
  if (GetProcessHandleCount(GetCurrentProcess(), &handles) && handles != 0) return handles;
  // Wine answers 0: the handle table is probed instead. Handles are
  // multiples of 4 given out lowest free first, so the table is dense and
  // a long run of values that name nothing is its end.
  std::size_t open = 0;
  int unused = 0;
  for (std::uintptr_t value = 4; unused < 1024; value += 4) {
    DWORD flags = 0;
    if (GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags)) {
      ++open;
      unused = 0;
    } else {
      ++unused;
    }
  }
  return open;
#else
  std::size_t open = 0;
  for (auto it = std::filesystem::directory_iterator("/proc/self/fd"); it != std::filesystem::directory_iterator();
       ++it) {
    ++open;
  }
  return open;
#endif
}

}  // namespace Testing
}  // namespace Tovrel
