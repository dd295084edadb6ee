// NativeFile: the system's own file calls on wide paths.
//
// Two kinds of file: handles for positional reads and writes on the native
// handle (POSIX open + pread/pwrite; Windows CreateFileW + ReadFile/WriteFile
// at an OVERLAPPED offset), which the package file and its journal use with
// no buffer in between; and C-runtime stdio streams for other files (the
// profiling log, lists).
//
// One implementation per system (posix/, win32/). Only the native file
// system (NativeFileSystem and its handles) calls it; everything else goes
// through PlatformFile. Failures set errno (Windows errors are translated).
// Stateless; a handle or stream is used by one thread at a time.
#ifndef TOVREL_PLATFORM_NATIVEFILE_H
#define TOVREL_PLATFORM_NATIVEFILE_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

namespace Tovrel {

class NativeFile {
 public:
  // A file open for positional calls: a descriptor on POSIX, a HANDLE on
  // Windows.
  using Handle = std::intptr_t;
  static constexpr Handle kNoHandle = -1;

  // Opens for positional calls with a C-runtime mode's meaning: "rb" an
  // existing file for reading, "r+b" an existing file for update, "w+b"
  // creates the file or empties an existing one. kNoHandle with errno set
  // on failure (EINVAL for another mode).
  static Handle OpenHandle(const wchar_t* path, const char* mode);
  // OpenHandle with the file's exclusive lock, taken without waiting: an
  // flock on POSIX (checked to lie on the file still linked at the path), a
  // share mode that denies other writers on Windows. "w+b" empties the file
  // only once the lock is held. kNoHandle with *busy set while another
  // holds it.
  static Handle OpenHandleLocked(const wchar_t* path, const char* mode, bool* busy);
  // Reads up to `bytes` at `offset`: the bytes read (fewer only where the
  // file ends), or -1 with errno set.
  static std::int64_t ReadAt(Handle file, void* buffer, std::size_t bytes, std::uint64_t offset);
  // Writes `bytes` at `offset`, all of them: the bytes written (all), or -1
  // with errno set (some may have been written).
  static std::int64_t WriteAt(Handle file, const void* buffer, std::size_t bytes, std::uint64_t offset);
  // The file's length, or -1 with errno set.
  static std::int64_t Length(Handle file);
  // Waits until the file's bytes and length are on stable storage
  // (fdatasync; FlushFileBuffers). 0, or -1 with errno set.
  static int SyncHandle(Handle file);
  // Sets the file's length (zeros when it grows). 0, or -1 with errno set.
  static int TruncateHandle(Handle file, std::uint64_t length);
  // Closes the handle. 0, or -1 with errno set (closed all the same).
  static int CloseHandle(Handle file);

  // _wfopen on Windows; fopen of the UTF-8 path elsewhere.
  static std::FILE* Open(const wchar_t* path, const char* mode);
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
  // The canonical path of an existing file or folder (realpath;
  // GetFinalPathNameByHandleW without its "\\?\" prefix), or of a missing
  // file in an existing folder (the folder's, the separator and the name).
  // Empty when neither resolves.
  static std::wstring CanonicalPath(const wchar_t* path);
  // The owner's user id when the file exists and belongs to another user
  // than this process's effective one (POSIX); -1 otherwise, and always on
  // Windows, where named objects are the session's, not a file's owner's.
  static std::int64_t OtherOwner(const wchar_t* path);
  // The system's path separator: '\\' on Windows, '/' elsewhere.
  static wchar_t Separator();
};

}  // namespace Tovrel

#endif
