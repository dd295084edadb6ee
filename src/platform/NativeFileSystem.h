// NativeFileSystem: the system's own file system.
//
// Files opened "rb", "r+b" or "w+b" (the package file and its journal),
// and every file opened locked, are PositionalFileHandles; files of other
// modes (appended logs, written lists) are StdioFileHandles. Free space
// comes from the volume (statvfs, GetDiskFreeSpaceExW). It cannot simulate a power cut: CutPower ends the
// process at once, which is what a crash test that asks for it wants.
// One instance for the process (Instance()); stateless, so every operation
// may be called from any thread.
#ifndef TOVREL_PLATFORM_NATIVEFILESYSTEM_H
#define TOVREL_PLATFORM_NATIVEFILESYSTEM_H

#include "platform/FileSystem.h"

namespace Tovrel {

class NativeFileSystem : public FileSystem {
 public:
  // Exit code of a process ended by CutPower.
  static constexpr int kPowerCutExitCode = 86;

  static NativeFileSystem& Instance();

  FileHandle* Open(const wchar_t* path, const char* mode) override;
  FileHandle* OpenLocked(const wchar_t* path, const char* mode, bool* busy) override;
  int Remove(const wchar_t* path) override;
  int Rename(const wchar_t* from, const wchar_t* to) override;
  bool Exists(const wchar_t* path) override;
  std::wstring CanonicalPath(const wchar_t* path) override;
  std::int64_t OtherOwner(const wchar_t* path) override;
  std::uint64_t AvailableBytes(const wchar_t* folder) override;
  void CutPower() override;

 private:
  NativeFileSystem() = default;
};

}  // namespace Tovrel

#endif
