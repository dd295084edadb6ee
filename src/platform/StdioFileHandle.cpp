#include "platform/StdioFileHandle.h"

#include <cassert>
#include <cerrno>

#include "platform/NativeFile.h"

namespace Tovrel {

StdioFileHandle::StdioFileHandle(std::FILE* file) : file_(file) { assert(file_ != nullptr); }

StdioFileHandle::~StdioFileHandle() {
  if (file_ != nullptr) std::fclose(file_);
}

int StdioFileHandle::Seek(std::int64_t offset, int origin) { return NativeFile::Seek(file_, offset, origin); }

std::int64_t StdioFileHandle::Tell() { return NativeFile::Tell(file_); }

std::size_t StdioFileHandle::Read(void* buffer, std::size_t size, std::size_t count) {
  return std::fread(buffer, size, count, file_);
}

std::size_t StdioFileHandle::Write(const void* buffer, std::size_t size, std::size_t count) {
  return std::fwrite(buffer, size, count, file_);
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
