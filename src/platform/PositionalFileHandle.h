// PositionalFileHandle: a file of the system's own file system, read and
// written with positional calls on its native handle.
//
// The handle keeps the position itself: a seek is only noted, and every
// read or write is one positional call (pread/pwrite; ReadFile/WriteFile at
// an OVERLAPPED offset) at it, so no seek reaches the system and no buffer
// sits between the caller and the file. Flush has nothing to do.
//
// Owns the native handle and closes it when closed or deleted. Made by
// NativeFileSystem. Thread-safety: one thread at a time, but for ReadAt,
// which any number of threads may call at once (see FileHandle).
#ifndef TOVREL_PLATFORM_POSITIONALFILEHANDLE_H
#define TOVREL_PLATFORM_POSITIONALFILEHANDLE_H

#include "platform/FileHandle.h"
#include "platform/NativeFile.h"

namespace Tovrel {

class PositionalFileHandle : public FileHandle {
 public:
  // Takes ownership of an open handle (not kNoHandle).
  explicit PositionalFileHandle(NativeFile::Handle file);
  ~PositionalFileHandle() override;

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
  // Bytes of `count` items of `size`, or false (errno EINVAL) when they do
  // not fit in a size_t.
  static bool ItemBytes(std::size_t size, std::size_t count, std::size_t* bytes);
  bool Usable() const;

  NativeFile::Handle file_;  // kNoHandle once closed
  // Invariant: position_ >= 0; it is where the next read or write starts,
  // and only Seek and the bytes moved by Read and Write change it.
  std::int64_t position_;
};

}  // namespace Tovrel

#endif
