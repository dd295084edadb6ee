// FileSystem: where the library's files live.
//
// The system's own file system (NativeFileSystem) serves the library in a
// host; tests and fuzz targets may put another in its place for the whole
// process (MemoryFileSystem: files in memory, with simulated power cuts).
// Every file the library opens, removes or looks for goes through the
// current one, by way of PlatformFile.
//
// Paths are wide strings in the system's spelling. Failures are reported as
// the C runtime reports them: a null handle or a non-zero result, errno set.
//
// The current file system is process-wide; Install swaps it (tests install
// before they use the library and restore afterwards). File systems are
// owned by whoever installs them and must outlive their use; the native one
// lives for the whole process. Thread-safety: every operation may be called
// from any thread.
#ifndef TOVREL_PLATFORM_FILESYSTEM_H
#define TOVREL_PLATFORM_FILESYSTEM_H

#include <cstdint>
#include <string>

#include "platform/FileHandle.h"

namespace Tovrel {

class FileSystem {
 public:
  virtual ~FileSystem() = default;
  FileSystem(const FileSystem&) = delete;
  FileSystem& operator=(const FileSystem&) = delete;

  // Opens with a C runtime mode ("rb", "r+b", "w+b", "ab", ...).
  virtual FileHandle* Open(const wchar_t* path, const char* mode) = 0;
  // Opens and takes the file's exclusive lock without waiting, which lasts
  // until the handle closes. Mode "r+b" needs the file; "w+b" creates it or
  // empties it, but only once the lock is held. While another handle (of
  // this or another process) holds the lock: null with *busy set.
  virtual FileHandle* OpenLocked(const wchar_t* path, const char* mode, bool* busy) = 0;
  // Deletes a file. 0, or non-zero with errno.
  virtual int Remove(const wchar_t* path) = 0;
  // Gives the file at `from` the name `to`, replacing a file of that name.
  // 0, or non-zero with errno (the file may be open where the system
  // allows that; where it does not, the call fails).
  virtual int Rename(const wchar_t* from, const wchar_t* to) = 0;
  // True when a file exists at the path.
  virtual bool Exists(const wchar_t* path) = 0;
  // The one path every path to this file resolves to: absolute, with no
  // "." or ".." and no symbolic link (on Windows also in the letter case
  // stored on disk, with long names). A missing file is resolved through
  // its folder. The path itself when it cannot be resolved (a missing
  // folder) and on file systems without links.
  virtual std::wstring CanonicalPath(const wchar_t* path) { return path; }
  // The user id of the file's owner when it exists and belongs to a user
  // other than the one this process runs as; -1 otherwise (a missing file,
  // and always on systems whose named objects are not per user).
  virtual std::int64_t OtherOwner(const wchar_t* path) {
    (void)path;
    return -1;
  }
  // Bytes still available to this process on the volume of `folder`; 0
  // when it cannot be told.
  virtual std::uint64_t AvailableBytes(const wchar_t* folder) = 0;
  // The machine loses power now: from this call on nothing reaches any
  // file (a file system that cannot simulate it ends the process at once).
  virtual void CutPower() = 0;

  // The file system in use.
  static FileSystem& Current();
  // Makes `fileSystem` current (null: the native one); returns the former.
  static FileSystem* Install(FileSystem* fileSystem);

 protected:
  FileSystem() = default;
};

}  // namespace Tovrel

#endif
