// StdioFileHandle: a file of the system's own file system, as a C runtime
// stdio stream.
//
// Owns the stream and closes it when closed or deleted. Every call is the
// C runtime's (through NativeFile for the 64-bit and system-specific ones).
// Made by NativeFileSystem. Thread-safety: none; one thread at a time.
#ifndef TOVREL_PLATFORM_STDIOFILEHANDLE_H
#define TOVREL_PLATFORM_STDIOFILEHANDLE_H

#include <cstdio>

#include "platform/FileHandle.h"

namespace Tovrel {

class StdioFileHandle : public FileHandle {
 public:
  // Takes ownership of an open stream (not null).
  explicit StdioFileHandle(std::FILE* file);
  ~StdioFileHandle() override;

  int Seek(std::int64_t offset, int origin) override;
  std::int64_t Tell() override;
  std::size_t Read(void* buffer, std::size_t size, std::size_t count) override;
  std::size_t Write(const void* buffer, std::size_t size, std::size_t count) override;
  int Flush() override;
  int Sync() override;
  int Truncate(std::uint64_t length) override;
  int Close() override;

 private:
  std::FILE* file_;  // null once closed
};

}  // namespace Tovrel

#endif
