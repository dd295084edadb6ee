#include "platform/PlatformFile.h"

#include <cerrno>

#include "platform/FileFaults.h"
#include "platform/FileSystem.h"
#include "platform/NativeFile.h"

namespace Tovrel {

namespace {

std::uint64_t& ThreadFailures() {
  thread_local std::uint64_t failures = 0;
  return failures;
}

// True when an armed fault takes this call; errno is then set to its error.
bool Faulted(FileCall call) {
  int error = 0;
  if (!FileFaults::Trip(call, &error)) return false;
  errno = error;
  if (error != ENOENT) ++ThreadFailures();
  return true;
}

// Counts a call that reported failure with an error other than a missing
// file (which is an answer, not trouble).
template <typename Result>
Result Counted(Result result, bool failed) {
  if (failed && errno != 0 && errno != ENOENT) ++ThreadFailures();
  return result;
}

}  // namespace

FileHandle* PlatformFile::Open(const wchar_t* path, const char* mode) {
  if (Faulted(FileCall::kOpen)) return nullptr;
  errno = 0;
  FileHandle* file = FileSystem::Current().Open(path, mode);
  return Counted(file, file == nullptr);
}

FileHandle* PlatformFile::OpenLocked(const wchar_t* path, const char* mode, bool* busy) {
  *busy = false;
  if (Faulted(FileCall::kOpen)) return nullptr;
  errno = 0;
  FileHandle* file = FileSystem::Current().OpenLocked(path, mode, busy);
  return Counted(file, file == nullptr);
}

int PlatformFile::Seek(FileHandle* file, std::int64_t offset, int origin) {
  if (Faulted(FileCall::kSeek)) return -1;
  errno = 0;
  const int result = file->Seek(offset, origin);
  return Counted(result, result != 0);
}

std::int64_t PlatformFile::Tell(FileHandle* file) {
  if (Faulted(FileCall::kTell)) return -1;
  errno = 0;
  const std::int64_t result = file->Tell();
  return Counted(result, result < 0);
}

std::size_t PlatformFile::Read(void* buffer, std::size_t size, std::size_t count, FileHandle* file) {
  if (Faulted(FileCall::kRead)) return 0;
  errno = 0;
  const std::size_t result = file->Read(buffer, size, count);
  return Counted(result, result < count);
}

std::int64_t PlatformFile::ReadAt(FileHandle* file, void* buffer, std::size_t bytes, std::uint64_t offset) {
  if (Faulted(FileCall::kRead)) return -1;
  errno = 0;
  const std::int64_t result = file->ReadAt(buffer, bytes, offset);
  return Counted(result, result < 0);
}

std::size_t PlatformFile::Write(const void* buffer, std::size_t size, std::size_t count, FileHandle* file) {
  if (Faulted(FileCall::kWrite)) return 0;
  errno = 0;
  const std::size_t result = file->Write(buffer, size, count);
  return Counted(result, result < count);
}

int PlatformFile::Flush(FileHandle* file) {
  if (Faulted(FileCall::kFlush)) return EOF;
  errno = 0;
  const int result = file->Flush();
  return Counted(result, result != 0);
}

int PlatformFile::Sync(FileHandle* file) {
  if (Faulted(FileCall::kSync)) return -1;
  errno = 0;
  const int result = file->Sync();
  return Counted(result, result != 0);
}

int PlatformFile::Truncate(FileHandle* file, std::uint64_t length) {
  if (Faulted(FileCall::kTruncate)) return -1;
  errno = 0;
  const int result = file->Truncate(length);
  return Counted(result, result != 0);
}

int PlatformFile::Close(FileHandle* file) {
  if (Faulted(FileCall::kClose)) {
    const int error = errno;
    delete file;
    errno = error;
    return EOF;
  }
  errno = 0;
  const int result = file->Close();
  const int error = errno;
  delete file;
  errno = error;
  return Counted(result, result != 0);
}

int PlatformFile::Remove(const wchar_t* path) {
  if (Faulted(FileCall::kRemove)) return -1;
  errno = 0;
  const int result = FileSystem::Current().Remove(path);
  return Counted(result, result != 0);
}

int PlatformFile::Rename(const wchar_t* from, const wchar_t* to) {
  if (Faulted(FileCall::kRename)) return -1;
  return FileSystem::Current().Rename(from, to);
}

bool PlatformFile::Exists(const wchar_t* path) { return FileSystem::Current().Exists(path); }

std::wstring PlatformFile::CanonicalPath(const wchar_t* path) { return FileSystem::Current().CanonicalPath(path); }

std::int64_t PlatformFile::OtherOwner(const wchar_t* path) { return FileSystem::Current().OtherOwner(path); }

std::uint64_t PlatformFile::AvailableBytes(const wchar_t* folder) {
  std::uint64_t figure = 0;
  if (FileFaults::AvailableBytesOverride(&figure)) return figure;
  return FileSystem::Current().AvailableBytes(folder);
}

wchar_t PlatformFile::Separator() { return NativeFile::Separator(); }

std::uint64_t PlatformFile::FailuresOnThisThread() { return ThreadFailures(); }

}  // namespace Tovrel
