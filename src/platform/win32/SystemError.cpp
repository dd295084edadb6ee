#include "platform/SystemError.h"

#include <windows.h>

namespace Tovrel {

std::uint32_t SystemError::Last() { return static_cast<std::uint32_t>(GetLastError()); }

void SystemError::SetLast(std::uint32_t error) { SetLastError(static_cast<DWORD>(error)); }

}  // namespace Tovrel
