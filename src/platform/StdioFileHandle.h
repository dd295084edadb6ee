// StdioFileHandle: a file of the system's own file system, as an
// unbuffered C runtime stdio stream.
//
// Owns the stream and closes it when closed or deleted. Every call is the
// C runtime's (through NativeFile for the 64-bit and system-specific ones).
// The stream has no buffer of its own: its callers move whole pages, or
// runs of them, at a time, and a buffered stream would read a block at
// every seek to fill its buffer. A seek to an absolute position is only
// noted, and made by the next read or write if it has to be: a transfer
// that starts where the last one ended needs none. The C runtime's rule
// that a read and a write never follow each other without a positioning
// call in between is kept.
// Made by NativeFileSystem. Thread-safety: none; one thread at a time.
#ifndef TOVREL_PLATFORM_STDIOFILEHANDLE_H
#define TOVREL_PLATFORM_STDIOFILEHANDLE_H

#include <cstdio>

#include "platform/FileHandle.h"

namespace Tovrel {

class StdioFileHandle : public FileHandle {
 public:
  // Takes ownership of an open stream (not null) on which nothing was done yet.
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
  enum class Direction { kNone, kRead, kWrite };

  // Makes the stream stand where the next transfer in `direction` must
  // start; false (errno set) when the seek fails.
  bool PositionFor(Direction direction);
  void Moved(Direction direction, std::size_t requested, std::size_t moved);

  std::FILE* file_;  // null once closed
  // Invariants: when known_, the stream stands at position_ and its last
  // transfer was in last_ (kNone after a real seek). When pending_, a seek
  // to target_ was asked for and not yet made.
  bool known_;
  std::int64_t position_;
  Direction last_;
  bool pending_;
  std::int64_t target_;
};

}  // namespace Tovrel

#endif
