#include "platform/DiskSpace.h"

#include <windows.h>

namespace Tovrel {

std::uint64_t DiskSpace::AvailableBytes(const wchar_t* folder) {
  ULARGE_INTEGER available{};
  if (folder == nullptr || !GetDiskFreeSpaceExW(folder, &available, nullptr, nullptr)) return 0;
  return available.QuadPart;
}

}  // namespace Tovrel
