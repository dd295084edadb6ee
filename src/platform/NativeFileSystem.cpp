#include "platform/NativeFileSystem.h"

#include <cerrno>
#include <new>

#include "platform/DiskSpace.h"
#include "platform/NativeFile.h"
#include "platform/PlatformProcess.h"
#include "platform/StdioFileHandle.h"

namespace Tovrel {

namespace {

FileHandle* Wrap(std::FILE* file) {
  if (file == nullptr) return nullptr;
  try {
    return new StdioFileHandle(file);
  } catch (const std::bad_alloc&) {
    std::fclose(file);
    errno = ENOMEM;
    return nullptr;
  }
}

}  // namespace

NativeFileSystem& NativeFileSystem::Instance() {
  static NativeFileSystem instance;
  return instance;
}

FileHandle* NativeFileSystem::Open(const wchar_t* path, const char* mode) {
  return Wrap(NativeFile::Open(path, mode));
}

FileHandle* NativeFileSystem::OpenLocked(const wchar_t* path, const char* mode, bool* busy) {
  return Wrap(NativeFile::OpenLocked(path, mode, busy));
}

int NativeFileSystem::Remove(const wchar_t* path) { return NativeFile::Remove(path); }

int NativeFileSystem::Rename(const wchar_t* from, const wchar_t* to) { return NativeFile::Rename(from, to); }

bool NativeFileSystem::Exists(const wchar_t* path) { return NativeFile::Exists(path); }

std::uint64_t NativeFileSystem::AvailableBytes(const wchar_t* folder) { return DiskSpace::AvailableBytes(folder); }

void NativeFileSystem::CutPower() { PlatformProcess::ExitNow(kPowerCutExitCode); }

}  // namespace Tovrel
