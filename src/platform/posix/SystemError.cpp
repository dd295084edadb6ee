#include "platform/SystemError.h"

#include <cerrno>

namespace Tovrel {

std::uint32_t SystemError::Last() { return static_cast<std::uint32_t>(errno); }

void SystemError::SetLast(std::uint32_t error) { errno = static_cast<int>(error); }

}  // namespace Tovrel
