#include "platform/DiskSpace.h"

#include <sys/statvfs.h>

#include "platform/WideText.h"

namespace Tovrel {

std::uint64_t DiskSpace::AvailableBytes(const wchar_t* folder) {
  struct statvfs volume {};
  if (folder == nullptr || statvfs(WideText::ToUtf8(folder).c_str(), &volume) != 0) return 0;
  return static_cast<std::uint64_t>(volume.f_bavail) * static_cast<std::uint64_t>(volume.f_frsize);
}

}  // namespace Tovrel
