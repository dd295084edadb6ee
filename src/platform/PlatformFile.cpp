#include "platform/PlatformFile.h"

#include <cerrno>

#include "platform/FileFaults.h"
#include "platform/FileSystem.h"
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

FileHandle* PlatformFile::Open(const wchar_t* path, const char* mode) {
  if (Faulted(FileCall::kOpen)) return nullptr;
  return FileSystem::Current().Open(path, mode);
}

FileHandle* PlatformFile::OpenLocked(const wchar_t* path, const char* mode, bool* busy) {
  *busy = false;
  if (Faulted(FileCall::kOpen)) return nullptr;
  return FileSystem::Current().OpenLocked(path, mode, busy);
}

int PlatformFile::Seek(FileHandle* file, std::int64_t offset, int origin) {
  if (Faulted(FileCall::kSeek)) return -1;
  return file->Seek(offset, origin);
}

std::int64_t PlatformFile::Tell(FileHandle* file) {
  if (Faulted(FileCall::kTell)) return -1;
  return file->Tell();
}

std::size_t PlatformFile::Read(void* buffer, std::size_t size, std::size_t count, FileHandle* file) {
  if (Faulted(FileCall::kRead)) return 0;
  return file->Read(buffer, size, count);
}

std::size_t PlatformFile::Write(const void* buffer, std::size_t size, std::size_t count, FileHandle* file) {
  if (Faulted(FileCall::kWrite)) return 0;
  return file->Write(buffer, size, count);
}

int PlatformFile::Flush(FileHandle* file) {
  if (Faulted(FileCall::kFlush)) return EOF;
  return file->Flush();
}

int PlatformFile::Sync(FileHandle* file) {
  if (Faulted(FileCall::kSync)) return -1;
  return file->Sync();
}

int PlatformFile::Truncate(FileHandle* file, std::uint64_t length) {
  if (Faulted(FileCall::kTruncate)) return -1;
  return file->Truncate(length);
}

int PlatformFile::Close(FileHandle* file) {
  if (Faulted(FileCall::kClose)) {
    const int error = errno;
    delete file;
    errno = error;
    return EOF;
  }
  const int result = file->Close();
  const int error = errno;
  delete file;
  errno = error;
  return result;
}

int PlatformFile::Remove(const wchar_t* path) {
  if (Faulted(FileCall::kRemove)) return -1;
  return FileSystem::Current().Remove(path);
}

int PlatformFile::Rename(const wchar_t* from, const wchar_t* to) {
  if (Faulted(FileCall::kRename)) return -1;
  return FileSystem::Current().Rename(from, to);
}

bool PlatformFile::Exists(const wchar_t* path) { return FileSystem::Current().Exists(path); }

std::uint64_t PlatformFile::AvailableBytes(const wchar_t* folder) {
  std::uint64_t figure = 0;
  if (FileFaults::AvailableBytesOverride(&figure)) return figure;
  return FileSystem::Current().AvailableBytes(folder);
}

wchar_t PlatformFile::Separator() { return NativeFile::Separator(); }

}  // namespace Tovrel
