// SystemError: the calling thread's last system error number.
//
// GetLastError() on Windows, errno elsewhere. The platform layer's calls
// that report failure by a null or false result leave it set for the caller.
// Stateless; per-thread by nature.
#ifndef TOVREL_PLATFORM_SYSTEMERROR_H
#define TOVREL_PLATFORM_SYSTEMERROR_H

#include <cstdint>

namespace Tovrel {

class SystemError {
 public:
  static std::uint32_t Last();
  static void SetLast(std::uint32_t error);
};

}  // namespace Tovrel

#endif
