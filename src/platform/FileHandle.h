// FileHandle: one open file of a FileSystem, used as the C runtime's stdio
// streams are: a position, reads and writes that move it, and results that
// report failure as the C runtime does (-1, EOF or a short count, with
// errno set).
//
// Beyond stdio it can make what was written durable (Sync: on stable
// storage when it returns) and cut or grow the file (Truncate). A handle
// opened with FileSystem::OpenLocked holds the file's lock until it closes.
//
// Made by a FileSystem and owned by whoever opened it; PlatformFile::Close
// closes and deletes it (deleting without Close closes quietly).
// Thread-safety: one thread at a time uses a handle, except that ReadAt
// may run on several threads at once while no other call runs on it.
#ifndef TOVREL_PLATFORM_FILEHANDLE_H
#define TOVREL_PLATFORM_FILEHANDLE_H

#include <cstddef>
#include <cstdint>

namespace Tovrel {

class FileHandle {
 public:
  virtual ~FileHandle() = default;
  FileHandle(const FileHandle&) = delete;
  FileHandle& operator=(const FileHandle&) = delete;

  // 64-bit seek; origin SEEK_SET, SEEK_CUR or SEEK_END. 0, or -1 with errno.
  virtual int Seek(std::int64_t offset, int origin) = 0;
  // The position, or -1 with errno.
  virtual std::int64_t Tell() = 0;
  // As fread and fwrite: the number of whole items moved.
  virtual std::size_t Read(void* buffer, std::size_t size, std::size_t count) = 0;
  virtual std::size_t Write(const void* buffer, std::size_t size, std::size_t count) = 0;
  // Reads up to `bytes` at `offset`, neither using nor moving the
  // position: the bytes read (fewer only at the end of the file), or -1
  // with errno. A handle that cannot read so answers -1 with ENOTSUP.
  virtual std::int64_t ReadAt(void* buffer, std::size_t bytes, std::uint64_t offset);
  // Hands buffered writes to the system. 0, or EOF with errno.
  virtual int Flush() = 0;
  // Flush, then waits until the file's bytes and length are on stable
  // storage. 0, or -1 with errno.
  virtual int Sync() = 0;
  // Flush, then sets the file's length (zeros when it grows). 0, or -1
  // with errno.
  virtual int Truncate(std::uint64_t length) = 0;
  // Flushes and closes; the handle is unusable afterwards whatever the
  // result. 0, or EOF with errno.
  virtual int Close() = 0;

 protected:
  FileHandle() = default;
};

}  // namespace Tovrel

#endif
