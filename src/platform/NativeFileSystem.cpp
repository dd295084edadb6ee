#include "platform/NativeFileSystem.h"

#include <cerrno>
#include <cstring>
#include <new>

#include "platform/DiskSpace.h"
#include "platform/NativeFile.h"
#include "platform/PlatformProcess.h"
#include "platform/PositionalFileHandle.h"
#include "platform/StdioFileHandle.h"

namespace Tovrel {

namespace {

// A handle of type Made over an open file (none when it is `closed`); when
// there is no memory for it, the file is closed with `close`.
template <typename Made, typename File, typename Close>
FileHandle* Wrap(File file, File closed, Close close) {
  if (file == closed) return nullptr;
  try {
    return new Made(file);
  } catch (const std::bad_alloc&) {
    close(file);
    errno = ENOMEM;
    return nullptr;
  }
}

FileHandle* Wrap(std::FILE* file) { return Wrap<StdioFileHandle>(file, static_cast<std::FILE*>(nullptr), std::fclose); }

FileHandle* Wrap(NativeFile::Handle file) {
  return Wrap<PositionalFileHandle>(file, NativeFile::kNoHandle, NativeFile::CloseHandle);
}

// The modes of the package file and its journal ("rb", "r+b", "w+b"), which
// are read and written with positional calls; other files go through stdio.
bool Positional(const char* mode) {
  return std::strcmp(mode, "rb") == 0 || std::strcmp(mode, "r+b") == 0 || std::strcmp(mode, "w+b") == 0;
}

}  // namespace

NativeFileSystem& NativeFileSystem::Instance() {
  static NativeFileSystem instance;
  return instance;
}

FileHandle* NativeFileSystem::Open(const wchar_t* path, const char* mode) {
  if (Positional(mode)) return Wrap(NativeFile::OpenHandle(path, mode));
  return Wrap(NativeFile::Open(path, mode));
}

FileHandle* NativeFileSystem::OpenLocked(const wchar_t* path, const char* mode, bool* busy) {
  return Wrap(NativeFile::OpenHandleLocked(path, mode, busy));
}

int NativeFileSystem::Remove(const wchar_t* path) { return NativeFile::Remove(path); }

int NativeFileSystem::Rename(const wchar_t* from, const wchar_t* to) { return NativeFile::Rename(from, to); }

bool NativeFileSystem::Exists(const wchar_t* path) { return NativeFile::Exists(path); }

std::int64_t NativeFileSystem::OtherOwner(const wchar_t* path) { return NativeFile::OtherOwner(path); }

std::wstring NativeFileSystem::CanonicalPath(const wchar_t* path) {
  std::wstring canonical = NativeFile::CanonicalPath(path);
  return canonical.empty() ? std::wstring(path) : canonical;
}

std::uint64_t NativeFileSystem::AvailableBytes(const wchar_t* folder) { return DiskSpace::AvailableBytes(folder); }

void NativeFileSystem::CutPower() { PlatformProcess::ExitNow(kPowerCutExitCode); }

}  // namespace Tovrel
