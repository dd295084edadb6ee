// PlatformFile: the library's only way to its files.
//
// Every call goes to the current FileSystem (the system's own, or one a
// test installed) and reports failure exactly as the C runtime does (null,
// -1, EOF, a short count, with errno set). Before each call FileFaults may
// make it fail with a chosen errno, or cut the power at it; a failed Close
// still closes the file and deletes its handle.
// Stateless but for a per-thread count of failed calls; thread-safety as
// the current file system's.
#ifndef TOVREL_PLATFORM_PLATFORMFILE_H
#define TOVREL_PLATFORM_PLATFORMFILE_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "platform/FileHandle.h"

namespace Tovrel {

class PlatformFile {
 public:
  static FileHandle* Open(const wchar_t* path, const char* mode);
  // See FileSystem::OpenLocked; *busy tells a lock held elsewhere apart
  // from other failures.
  static FileHandle* OpenLocked(const wchar_t* path, const char* mode, bool* busy);
  static int Seek(FileHandle* file, std::int64_t offset, int origin);
  static std::int64_t Tell(FileHandle* file);
  static std::size_t Read(void* buffer, std::size_t size, std::size_t count, FileHandle* file);
  // See FileHandle::ReadAt: safe on several threads at once.
  static std::int64_t ReadAt(FileHandle* file, void* buffer, std::size_t bytes, std::uint64_t offset);
  static std::size_t Write(const void* buffer, std::size_t size, std::size_t count, FileHandle* file);
  static int Flush(FileHandle* file);
  static int Sync(FileHandle* file);
  static int Truncate(FileHandle* file, std::uint64_t length);
  // Closes the file and deletes its handle, whatever the result.
  static int Close(FileHandle* file);
  static int Remove(const wchar_t* path);
  static int Rename(const wchar_t* from, const wchar_t* to);
  static bool Exists(const wchar_t* path);
  static std::wstring CanonicalPath(const wchar_t* path);
  static std::int64_t OtherOwner(const wchar_t* path);
  // Free bytes available to this process on the volume of `folder` (or the
  // figure a test set through FileFaults).
  static std::uint64_t AvailableBytes(const wchar_t* folder);
  static wchar_t Separator();
  // How many calls have failed on this thread with an error other than a
  // missing file: a caller compares the figure before and after a step to
  // tell trouble of the file system (a failed read, no descriptor, no
  // space, no permission) from bytes that merely break a rule. A short
  // read at the end of a file is no failure, nor is a missing file.
  static std::uint64_t FailuresOnThisThread();
};

}  // namespace Tovrel

#endif
