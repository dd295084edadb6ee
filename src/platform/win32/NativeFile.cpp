#include "platform/NativeFile.h"

#include <windows.h>
#include <errno.h>
#include <io.h>
#include <share.h>
#include <stdio.h>
#include <wchar.h>

namespace Tovrel {

namespace {

void WideMode(const char* mode, wchar_t (&wide)[8]) {
  for (int i = 0; i < 7 && mode[i] != '\0'; ++i) wide[i] = static_cast<wchar_t>(mode[i]);
}

}  // namespace

std::FILE* NativeFile::Open(const wchar_t* path, const char* mode) {
  wchar_t wideMode[8] = {};
  WideMode(mode, wideMode);
  return _wfopen(path, wideMode);
}

std::FILE* NativeFile::OpenLocked(const wchar_t* path, const char* mode, bool* busy) {
  // Denying other writers is the lock: while this handle is open, no other
  // handle with write access can be had, and "w+b" empties the file only
  // after the share check has passed.
  *busy = false;
  wchar_t wideMode[8] = {};
  WideMode(mode, wideMode);
  SetLastError(ERROR_SUCCESS);
  std::FILE* file = _wfsopen(path, wideMode, _SH_DENYWR);
  if (file == nullptr && GetLastError() == ERROR_SHARING_VIOLATION) {
    *busy = true;
    errno = EACCES;
  }
  return file;
}

int NativeFile::Seek(std::FILE* file, std::int64_t offset, int origin) {
  return _fseeki64(file, offset, origin);
}

std::int64_t NativeFile::Tell(std::FILE* file) { return _ftelli64(file); }

int NativeFile::Sync(std::FILE* file) {
  if (fflush(file) != 0) return -1;
  const HANDLE handle = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(file)));
  if (handle == INVALID_HANDLE_VALUE || !FlushFileBuffers(handle)) {
    errno = EIO;
    return -1;
  }
  return 0;
}

int NativeFile::Truncate(std::FILE* file, std::uint64_t length) {
  if (fflush(file) != 0) return -1;
  const errno_t error = _chsize_s(_fileno(file), static_cast<__int64>(length));
  if (error != 0) {
    errno = error;
    return -1;
  }
  return 0;
}

int NativeFile::Remove(const wchar_t* path) { return _wremove(path); }

int NativeFile::Rename(const wchar_t* from, const wchar_t* to) {
  if (MoveFileExW(from, to, MOVEFILE_REPLACE_EXISTING)) return 0;
  errno = GetLastError() == ERROR_FILE_NOT_FOUND ? ENOENT : EACCES;
  return -1;
}

bool NativeFile::Exists(const wchar_t* path) {
  return GetFileAttributesW(path) != INVALID_FILE_ATTRIBUTES;
}

wchar_t NativeFile::Separator() { return L'\\'; }

}  // namespace Tovrel
