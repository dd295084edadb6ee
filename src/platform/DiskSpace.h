// DiskSpace: bytes of a volume still available to this process
// (GetDiskFreeSpaceExW on Windows; statvfs f_bavail * f_frsize elsewhere).
// Stateless; safe from any thread.
#ifndef TOVREL_PLATFORM_DISKSPACE_H
#define TOVREL_PLATFORM_DISKSPACE_H

#include <cstdint>

namespace Tovrel {

class DiskSpace {
 public:
  // Free bytes available to the caller on the volume holding `folder`;
  // 0 when the system cannot tell (a missing folder, say).
  static std::uint64_t AvailableBytes(const wchar_t* folder);
};

}  // namespace Tovrel

#endif
