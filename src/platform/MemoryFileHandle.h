// MemoryFileHandle: an open file of a MemoryFileSystem.
//
// Holds the file's data alive (a removed file stays readable through the
// handles open on it, as on POSIX), its own position and access mode, and
// possibly the file's lock. Every call goes to its file system, which does
// the work under its lock. Made by MemoryFileSystem; owned by the opener.
// Thread-safety: as MemoryFileSystem.
#ifndef TOVREL_PLATFORM_MEMORYFILEHANDLE_H
#define TOVREL_PLATFORM_MEMORYFILEHANDLE_H

#include <cstdint>
#include <memory>

#include "platform/FileHandle.h"
#include "platform/MemoryFileSystem.h"

namespace Tovrel {

class MemoryFileHandle : public FileHandle {
 public:
  MemoryFileHandle(MemoryFileSystem* fileSystem, std::shared_ptr<MemoryFileSystem::File> file, bool readable,
                   bool writable, bool append, std::uint64_t epoch);
  ~MemoryFileHandle() override;

  int Seek(std::int64_t offset, int origin) override;
  std::int64_t Tell() override;
  std::size_t Read(void* buffer, std::size_t size, std::size_t count) override;
  std::size_t Write(const void* buffer, std::size_t size, std::size_t count) override;
  std::int64_t ReadAt(void* buffer, std::size_t bytes, std::uint64_t offset) override;
  int Flush() override;
  int Sync() override;
  int Truncate(std::uint64_t length) override;
  int Close() override;

 private:
  friend class MemoryFileSystem;

  MemoryFileSystem* fileSystem_;
  std::shared_ptr<MemoryFileSystem::File> file_;  // null once closed
  std::uint64_t position_;
  bool readable_;
  bool writable_;
  bool append_;
  std::uint64_t epoch_;
};

}  // namespace Tovrel

#endif
