#include "platform/PositionalFileHandle.h"

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <limits>

namespace Tovrel {

PositionalFileHandle::PositionalFileHandle(NativeFile::Handle file) : file_(file), position_(0) {
  assert(file_ != NativeFile::kNoHandle);
}

PositionalFileHandle::~PositionalFileHandle() {
  if (file_ != NativeFile::kNoHandle) NativeFile::CloseHandle(file_);
}

bool PositionalFileHandle::Usable() const {
  if (file_ != NativeFile::kNoHandle) return true;
  errno = EBADF;
  return false;
}

int PositionalFileHandle::Seek(std::int64_t offset, int origin) {
  if (!Usable()) return -1;
  std::int64_t base = 0;
  if (origin == SEEK_CUR) {
    base = position_;
  } else if (origin == SEEK_END) {
    base = NativeFile::Length(file_);
    if (base < 0) return -1;
  } else if (origin != SEEK_SET) {
    errno = EINVAL;
    return -1;
  }
  if ((offset > 0 && base > std::numeric_limits<std::int64_t>::max() - offset) || base + offset < 0) {
    errno = EINVAL;
    return -1;
  }
  position_ = base + offset;
  return 0;
}

std::int64_t PositionalFileHandle::Tell() { return Usable() ? position_ : -1; }

bool PositionalFileHandle::ItemBytes(std::size_t size, std::size_t count, std::size_t* bytes) {
  if (size != 0 && count > std::numeric_limits<std::size_t>::max() / size) {
    errno = EINVAL;
    return false;
  }
  *bytes = size * count;
  return true;
}

std::size_t PositionalFileHandle::Read(void* buffer, std::size_t size, std::size_t count) {
  std::size_t bytes = 0;
  if (!Usable() || !ItemBytes(size, count, &bytes) || bytes == 0) return 0;
  const std::int64_t got = NativeFile::ReadAt(file_, buffer, bytes, static_cast<std::uint64_t>(position_));
  if (got < 0) return 0;
  position_ += got;
  return static_cast<std::size_t>(got) / size;
}

std::int64_t PositionalFileHandle::ReadAt(void* buffer, std::size_t bytes, std::uint64_t offset) {
  // The native handle's positional read keeps no state of the handle's:
  // threads may share it.
  if (!Usable()) return -1;
  return NativeFile::ReadAt(file_, buffer, bytes, offset);
}

std::size_t PositionalFileHandle::Write(const void* buffer, std::size_t size, std::size_t count) {
  std::size_t bytes = 0;
  if (!Usable() || !ItemBytes(size, count, &bytes) || bytes == 0) return 0;
  const std::int64_t put = NativeFile::WriteAt(file_, buffer, bytes, static_cast<std::uint64_t>(position_));
  // A failed write may have moved some bytes; the caller treats the whole
  // transfer as failed and positions again before its next one.
  if (put < 0) return 0;
  position_ += put;
  return count;
}

int PositionalFileHandle::Flush() { return Usable() ? 0 : EOF; }

int PositionalFileHandle::Sync() { return Usable() ? NativeFile::SyncHandle(file_) : -1; }

int PositionalFileHandle::Truncate(std::uint64_t length) {
  return Usable() ? NativeFile::TruncateHandle(file_, length) : -1;
}

int PositionalFileHandle::Close() {
  const NativeFile::Handle file = file_;
  file_ = NativeFile::kNoHandle;
  if (file == NativeFile::kNoHandle) {
    errno = EBADF;
    return EOF;
  }
  return NativeFile::CloseHandle(file) == 0 ? 0 : EOF;
}

}  // namespace Tovrel
