// NativeFile: the system's own C-runtime file calls on wide paths.
//
// One implementation per system (posix/, win32/). Only the native file
// system (NativeFileSystem, StdioFileHandle) calls it; everything else goes
// through PlatformFile. Results and errno as the C runtime's.
// Stateless; thread-safety as the C runtime's stdio.
#ifndef TOVREL_PLATFORM_NATIVEFILE_H
#define TOVREL_PLATFORM_NATIVEFILE_H

#include <cstdint>
#include <cstdio>

namespace Tovrel {

class NativeFile {
 public:
  // _wfopen on Windows; fopen of the UTF-8 path elsewhere.
  static std::FILE* Open(const wchar_t* path, const char* mode);
  // Opens with the file's exclusive lock, taken without waiting: an flock
  // on POSIX (checked to lie on the file still linked at the path), a
  // share mode that denies other writers on Windows. "w+b" empties the file
  // only once the lock is held. Null with *busy set while another holds it.
  static std::FILE* OpenLocked(const wchar_t* path, const char* mode, bool* busy);
  // 64-bit seek (_fseeki64 / fseeko); 0 on success, non-zero with errno set.
  static int Seek(std::FILE* file, std::int64_t offset, int origin);
  // 64-bit tell (_ftelli64 / ftello); -1 with errno set on failure.
  static std::int64_t Tell(std::FILE* file);
  // fflush, then FlushFileBuffers / fsync; 0 on success.
  static int Sync(std::FILE* file);
  // fflush, then _chsize_s / ftruncate; 0 on success.
  static int Truncate(std::FILE* file, std::uint64_t length);
  // Deletes a file; 0 on success.
  static int Remove(const wchar_t* path);
  // Renames a file, replacing one already at `to` (rename;
  // MoveFileExW with MOVEFILE_REPLACE_EXISTING); 0 on success.
  static int Rename(const wchar_t* from, const wchar_t* to);
  // True when the path names an existing file.
  static bool Exists(const wchar_t* path);
  // The system's path separator: '\\' on Windows, '/' elsewhere.
  static wchar_t Separator();
};

}  // namespace Tovrel

#endif
