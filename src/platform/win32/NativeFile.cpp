#include "platform/NativeFile.h"

#include <windows.h>
#include <errno.h>
#include <io.h>
#include <stdio.h>
#include <wchar.h>

#include <cstring>

namespace Tovrel {

namespace {

void WideMode(const char* mode, wchar_t (&wide)[8]) {
  for (int i = 0; i < 7 && mode[i] != '\0'; ++i) wide[i] = static_cast<wchar_t>(mode[i]);
}

// errno for a system error, as the C runtime would set it.
int ErrnoFor(DWORD error) {
  switch (error) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
    case ERROR_INVALID_DRIVE:
      return ENOENT;
    case ERROR_ACCESS_DENIED:
    case ERROR_SHARING_VIOLATION:
    case ERROR_LOCK_VIOLATION:
    case ERROR_WRITE_PROTECT:
      return EACCES;
    case ERROR_TOO_MANY_OPEN_FILES:
      return EMFILE;
    case ERROR_NOT_ENOUGH_MEMORY:
    case ERROR_OUTOFMEMORY:
      return ENOMEM;
    case ERROR_DISK_FULL:
    case ERROR_HANDLE_DISK_FULL:
      return ENOSPC;
    case ERROR_INVALID_HANDLE:
      return EBADF;
    case ERROR_INVALID_PARAMETER:
    case ERROR_NEGATIVE_SEEK:
      return EINVAL;
    default:
      return EIO;
  }
}

template <typename T>
T Failed(T result) {
  errno = ErrnoFor(GetLastError());
  return result;
}

HANDLE AsHandle(NativeFile::Handle file) { return reinterpret_cast<HANDLE>(file); }

// The largest piece one ReadFile or WriteFile call moves.
constexpr std::size_t kPieceBytes = 1u << 30;

OVERLAPPED At(std::uint64_t offset) {
  OVERLAPPED overlapped = {};
  overlapped.Offset = static_cast<DWORD>(offset);
  overlapped.OffsetHigh = static_cast<DWORD>(offset >> 32);
  return overlapped;
}

// Opens as OpenHandle does, sharing reading with everyone and writing only
// when `shareWriting`: a file opened without it is locked against writers.
NativeFile::Handle OpenShared(const wchar_t* path, const char* mode, bool shareWriting) {
  DWORD access = GENERIC_READ;
  DWORD disposition = OPEN_EXISTING;
  if (std::strcmp(mode, "r+b") == 0) {
    access |= GENERIC_WRITE;
  } else if (std::strcmp(mode, "w+b") == 0) {
    access |= GENERIC_WRITE;
    disposition = CREATE_ALWAYS;
  } else if (std::strcmp(mode, "rb") != 0) {
    errno = EINVAL;
    return NativeFile::kNoHandle;
  }
  const DWORD share = FILE_SHARE_READ | (shareWriting ? FILE_SHARE_WRITE : 0);
  const HANDLE file = CreateFileW(path, access, share, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return Failed(NativeFile::kNoHandle);
  return reinterpret_cast<NativeFile::Handle>(file);
}

// The final path of an existing file or folder as the system stores it
// (long names, the letter case on disk, links followed), without the
// "\\?\" prefix ("\\?\UNC\server" becomes "\\server"); empty when it
// cannot be had.
std::wstring FinalPath(const wchar_t* path) {
  // The handle is closed however this ends: growing the buffer may throw
  // for want of memory, and a handle left open would keep the folder from
  // being removed for the rest of the host's run.
  struct Closing {
    HANDLE handle;
    ~Closing() {
      if (handle != INVALID_HANDLE_VALUE) ::CloseHandle(handle);
    }
  };
  std::wstring buffer(MAX_PATH, L'\0');
  const Closing file{CreateFileW(path, 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                 OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr)};
  if (file.handle == INVALID_HANDLE_VALUE) return std::wstring();
  DWORD length = 0;
  for (int attempt = 0; attempt < 2; ++attempt) {
    length = GetFinalPathNameByHandleW(file.handle, &buffer[0], static_cast<DWORD>(buffer.size()),
                                       FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
    if (length < buffer.size()) break;
    buffer.resize(length + 1);
  }
  if (length == 0 || length >= buffer.size()) return std::wstring();
  buffer.resize(length);
  const std::wstring unc = L"\\\\?\\UNC\\";
  const std::wstring local = L"\\\\?\\";
  if (buffer.compare(0, unc.size(), unc) == 0) return L"\\\\" + buffer.substr(unc.size());
  if (buffer.compare(0, local.size(), local) == 0) return buffer.substr(local.size());
  return buffer;
}

}  // namespace

NativeFile::Handle NativeFile::OpenHandle(const wchar_t* path, const char* mode) {
  return OpenShared(path, mode, true);
}

NativeFile::Handle NativeFile::OpenHandleLocked(const wchar_t* path, const char* mode, bool* busy) {
  // Denying other writers is the lock: while this handle is open, no other
  // handle with write access can be had, and "w+b" empties the file only
  // after the share check has passed.
  *busy = false;
  SetLastError(ERROR_SUCCESS);
  const Handle file = OpenShared(path, mode, false);
  if (file == kNoHandle && GetLastError() == ERROR_SHARING_VIOLATION) *busy = true;
  return file;
}

std::int64_t NativeFile::ReadAt(Handle file, void* buffer, std::size_t bytes, std::uint64_t offset) {
  auto* at = static_cast<std::uint8_t*>(buffer);
  std::size_t done = 0;
  while (done < bytes) {
    OVERLAPPED overlapped = At(offset + done);
    const DWORD piece = static_cast<DWORD>(bytes - done < kPieceBytes ? bytes - done : kPieceBytes);
    DWORD got = 0;
    if (!ReadFile(AsHandle(file), at + done, piece, &got, &overlapped)) {
      if (GetLastError() == ERROR_HANDLE_EOF) break;
      return Failed(std::int64_t{-1});
    }
    if (got == 0) break;
    done += got;
  }
  return static_cast<std::int64_t>(done);
}

std::int64_t NativeFile::WriteAt(Handle file, const void* buffer, std::size_t bytes, std::uint64_t offset) {
  const auto* at = static_cast<const std::uint8_t*>(buffer);
  std::size_t done = 0;
  while (done < bytes) {
    OVERLAPPED overlapped = At(offset + done);
    const DWORD piece = static_cast<DWORD>(bytes - done < kPieceBytes ? bytes - done : kPieceBytes);
    DWORD put = 0;
    if (!WriteFile(AsHandle(file), at + done, piece, &put, &overlapped)) return Failed(std::int64_t{-1});
    if (put == 0) {
      errno = ENOSPC;
      return -1;
    }
    done += put;
  }
  return static_cast<std::int64_t>(done);
}

std::int64_t NativeFile::Length(Handle file) {
  LARGE_INTEGER size = {};
  if (!GetFileSizeEx(AsHandle(file), &size)) return Failed(std::int64_t{-1});
  return size.QuadPart;
}

int NativeFile::SyncHandle(Handle file) {
  return FlushFileBuffers(AsHandle(file)) ? 0 : Failed(-1);
}

int NativeFile::TruncateHandle(Handle file, std::uint64_t length) {
  LARGE_INTEGER end = {};
  end.QuadPart = static_cast<LONGLONG>(length);
  if (!SetFilePointerEx(AsHandle(file), end, nullptr, FILE_BEGIN) || !SetEndOfFile(AsHandle(file))) {
    return Failed(-1);
  }
  return 0;
}

int NativeFile::CloseHandle(Handle file) { return ::CloseHandle(AsHandle(file)) ? 0 : Failed(-1); }

std::FILE* NativeFile::Open(const wchar_t* path, const char* mode) {
  wchar_t wideMode[8] = {};
  WideMode(mode, wideMode);
  return _wfopen(path, wideMode);
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

std::wstring NativeFile::CanonicalPath(const wchar_t* path) {
  std::wstring resolved = FinalPath(path);
  if (!resolved.empty()) return resolved;
  // A missing file: its folder's final path and its own name.
  const std::wstring whole(path);
  const std::size_t separator = whole.find_last_of(L"\\/");
  const std::wstring folder = separator == std::wstring::npos ? L"." : whole.substr(0, separator + 1);
  const std::wstring name = separator == std::wstring::npos ? whole : whole.substr(separator + 1);
  if (name.empty() || name == L"." || name == L"..") return std::wstring();
  resolved = FinalPath(folder.c_str());
  if (resolved.empty()) return std::wstring();
  if (resolved.back() != L'\\') resolved.push_back(L'\\');
  return resolved + name;
}

std::int64_t NativeFile::OtherOwner(const wchar_t*) { return -1; }

wchar_t NativeFile::Separator() { return L'\\'; }

}  // namespace Tovrel
