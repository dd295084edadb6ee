#include "platform/MemoryFileHandle.h"

#include <cerrno>
#include <cstdio>
#include <utility>

namespace Tovrel {

MemoryFileHandle::MemoryFileHandle(MemoryFileSystem* fileSystem, std::shared_ptr<MemoryFileSystem::File> file,
                                   bool readable, bool writable, bool append, std::uint64_t epoch)
    : fileSystem_(fileSystem),
      file_(std::move(file)),
      position_(0),
      readable_(readable),
      writable_(writable),
      append_(append),
      epoch_(epoch) {}

MemoryFileHandle::~MemoryFileHandle() {
  if (file_) fileSystem_->HandleClose(*this);
}

int MemoryFileHandle::Seek(std::int64_t offset, int origin) { return fileSystem_->HandleSeek(*this, offset, origin); }

std::int64_t MemoryFileHandle::Tell() { return fileSystem_->HandleTell(*this); }

std::size_t MemoryFileHandle::Read(void* buffer, std::size_t size, std::size_t count) {
  if (size == 0 || count == 0) return 0;
  return fileSystem_->HandleRead(*this, buffer, size * count) / size;
}

std::int64_t MemoryFileHandle::ReadAt(void* buffer, std::size_t bytes, std::uint64_t offset) {
  return fileSystem_->HandleReadAt(*this, buffer, bytes, offset);
}

std::size_t MemoryFileHandle::Write(const void* buffer, std::size_t size, std::size_t count) {
  if (size == 0 || count == 0) return 0;
  return fileSystem_->HandleWrite(*this, buffer, size * count) / size;
}

int MemoryFileHandle::Flush() {
  // Nothing is buffered in the handle; a flush only checks that it may go on.
  return fileSystem_->HandleSeek(*this, 0, SEEK_CUR) == 0 ? 0 : EOF;
}

int MemoryFileHandle::Sync() { return fileSystem_->HandleSync(*this); }

int MemoryFileHandle::Truncate(std::uint64_t length) { return fileSystem_->HandleTruncate(*this, length); }

int MemoryFileHandle::Close() { return fileSystem_->HandleClose(*this); }

}  // namespace Tovrel
