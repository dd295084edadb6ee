// NativeFile: the system's own C-runtime file calls on wide paths.
//
// One implementation per system (posix/, win32/). Only PlatformFile calls
// it; everything else goes through PlatformFile, which adds fault injection.
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
  // 64-bit seek (_fseeki64 / fseeko); 0 on success, non-zero with errno set.
  static int Seek(std::FILE* file, std::int64_t offset, int origin);
  // 64-bit tell (_ftelli64 / ftello); -1 with errno set on failure.
  static std::int64_t Tell(std::FILE* file);
  // Deletes a file; 0 on success.
  static int Remove(const wchar_t* path);
  // The system's path separator: '\\' on Windows, '/' elsewhere.
  static wchar_t Separator();
};

}  // namespace Tovrel

#endif
