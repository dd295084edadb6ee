#include "platform/PlatformFile.h"

#include <cerrno>

#include "platform/FileFaults.h"
#include "platform/NativeFile.h"

namespace Tovrel {

namespace {

// True when an armed fault takes this call; errno is then set to its error.
bool Faulted(FileCall call) {
  int error = 0;
  if (!FileFaults::Trip(call, &error)) return false;
  errno = error;
  return true;
}

}  // namespace

std::FILE* PlatformFile::Open(const wchar_t* path, const char* mode) {
  if (Faulted(FileCall::kOpen)) return nullptr;
  return NativeFile::Open(path, mode);
}

int PlatformFile::Seek(std::FILE* file, std::int64_t offset, int origin) {
  if (Faulted(FileCall::kSeek)) return -1;
  return NativeFile::Seek(file, offset, origin);
}

std::int64_t PlatformFile::Tell(std::FILE* file) {
  if (Faulted(FileCall::kTell)) return -1;
  return NativeFile::Tell(file);
}

std::size_t PlatformFile::Read(void* buffer, std::size_t size, std::size_t count, std::FILE* file) {
  if (Faulted(FileCall::kRead)) return 0;
  return std::fread(buffer, size, count, file);
}

std::size_t PlatformFile::Write(const void* buffer, std::size_t size, std::size_t count,
                                std::FILE* file) {
  if (Faulted(FileCall::kWrite)) return 0;
  return std::fwrite(buffer, size, count, file);
}

int PlatformFile::Flush(std::FILE* file) {
  if (Faulted(FileCall::kFlush)) return EOF;
  return std::fflush(file);
}

int PlatformFile::Close(std::FILE* file) {
  if (Faulted(FileCall::kClose)) {
    const int error = errno;
    std::fclose(file);
    errno = error;
    return EOF;
  }
  return std::fclose(file);
}

int PlatformFile::Remove(const wchar_t* path) { return NativeFile::Remove(path); }

wchar_t PlatformFile::Separator() { return NativeFile::Separator(); }

}  // namespace Tovrel
