#include "platform/FileHandle.h"

#include <cerrno>

namespace Tovrel {

std::int64_t FileHandle::ReadAt(void*, std::size_t, std::uint64_t) {
  // A handle with one position and a buffer (the C runtime's streams)
  // cannot read elsewhere without moving it.
  errno = ENOTSUP;
  return -1;
}

}  // namespace Tovrel
