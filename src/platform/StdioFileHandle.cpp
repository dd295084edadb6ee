#include "platform/StdioFileHandle.h"

#include <cassert>
#include <cerrno>

#include "platform/NativeFile.h"

namespace Tovrel {

StdioFileHandle::StdioFileHandle(std::FILE* file)
    : file_(file), known_(false), position_(0), last_(Direction::kNone), pending_(false), target_(0) {
  assert(file_ != nullptr);
  std::setvbuf(file_, nullptr, _IONBF, 0);
}

StdioFileHandle::~StdioFileHandle() {
  if (file_ != nullptr) std::fclose(file_);
}

int StdioFileHandle::Seek(std::int64_t offset, int origin) {
  if (origin == SEEK_SET && offset >= 0) {
    pending_ = true;
    target_ = offset;
    return 0;
  }
  pending_ = false;
  known_ = false;
  return NativeFile::Seek(file_, offset, origin);
}

std::int64_t StdioFileHandle::Tell() {
  if (pending_) return target_;
  if (known_) return position_;
  return NativeFile::Tell(file_);
}

bool StdioFileHandle::PositionFor(Direction direction) {
  const bool switching = last_ != Direction::kNone && last_ != direction;
  if (pending_) {
    pending_ = false;
    if (known_ && position_ == target_ && !switching) return true;
    known_ = false;
    last_ = Direction::kNone;
    if (NativeFile::Seek(file_, target_, SEEK_SET) != 0) return false;
    known_ = true;
    position_ = target_;
    return true;
  }
  if (!switching) return true;
  // A read after a write (or the reverse) needs a positioning call.
  last_ = Direction::kNone;
  return NativeFile::Seek(file_, 0, SEEK_CUR) == 0;
}

void StdioFileHandle::Moved(Direction direction, std::size_t requested, std::size_t moved) {
  last_ = direction;
  if (known_ && moved == requested) {
    position_ += static_cast<std::int64_t>(requested);
  } else {
    known_ = false;  // a short transfer leaves the position as the C runtime has it
  }
}

std::size_t StdioFileHandle::Read(void* buffer, std::size_t size, std::size_t count) {
  if (!PositionFor(Direction::kRead)) return 0;
  const std::size_t items = std::fread(buffer, size, count, file_);
  Moved(Direction::kRead, size * count, size * items);
  return items;
}

std::size_t StdioFileHandle::Write(const void* buffer, std::size_t size, std::size_t count) {
  if (!PositionFor(Direction::kWrite)) return 0;
  const std::size_t items = std::fwrite(buffer, size, count, file_);
  Moved(Direction::kWrite, size * count, size * items);
  return items;
}

int StdioFileHandle::Flush() { return std::fflush(file_); }

int StdioFileHandle::Sync() { return NativeFile::Sync(file_); }

int StdioFileHandle::Truncate(std::uint64_t length) { return NativeFile::Truncate(file_, length); }

int StdioFileHandle::Close() {
  std::FILE* file = file_;
  file_ = nullptr;
  if (file == nullptr) {
    errno = EBADF;
    return EOF;
  }
  return std::fclose(file);
}

}  // namespace Tovrel
