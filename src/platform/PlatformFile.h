// PlatformFile: the library's only way to the file system.
//
// Thin wrappers over the C runtime's stdio on wide paths, with 64-bit
// offsets, that report failure exactly as the C runtime does (null, -1, a
// short count, with errno set). Before each call FileFaults may make it fail
// with a chosen errno; a failed Close still closes the stream.
// Stateless; thread-safety as the C runtime's stdio.
#ifndef TOVREL_PLATFORM_PLATFORMFILE_H
#define TOVREL_PLATFORM_PLATFORMFILE_H

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace Tovrel {

class PlatformFile {
 public:
  static std::FILE* Open(const wchar_t* path, const char* mode);
  static int Seek(std::FILE* file, std::int64_t offset, int origin);
  static std::int64_t Tell(std::FILE* file);
  static std::size_t Read(void* buffer, std::size_t size, std::size_t count, std::FILE* file);
  static std::size_t Write(const void* buffer, std::size_t size, std::size_t count, std::FILE* file);
  static int Flush(std::FILE* file);
  static int Close(std::FILE* file);
  static int Remove(const wchar_t* path);
  static wchar_t Separator();
};

}  // namespace Tovrel

#endif
