#include "platform/NativeFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/WideText.h"

namespace Tovrel {

namespace {

// A lock taken on a file that was unlinked (and maybe replaced) between the
// open and the flock guards nothing; such an open is tried again.
constexpr int kLockAttempts = 4;

bool StillLinked(int fd, const std::string& path) {
  struct stat opened {};
  struct stat linked {};
  if (fstat(fd, &opened) != 0 || stat(path.c_str(), &linked) != 0) return false;
  return opened.st_dev == linked.st_dev && opened.st_ino == linked.st_ino;
}

int FlockWithoutWaiting(int fd) {
  int result = 0;
  do {
    result = flock(fd, LOCK_EX | LOCK_NB);
  } while (result != 0 && errno == EINTR);
  return result;
}

// open's flags for a C-runtime mode that positional handles take, or -1.
int OpenFlags(const char* mode) {
  if (std::strcmp(mode, "rb") == 0) return O_RDONLY;
  if (std::strcmp(mode, "r+b") == 0) return O_RDWR;
  if (std::strcmp(mode, "w+b") == 0) return O_RDWR | O_CREAT | O_TRUNC;
  return -1;
}

// realpath into `resolved`; false when the path does not resolve. The
// system's buffer is freed even when copying it runs out of memory.
bool Resolve(const std::string& path, std::string* resolved) {
  const std::unique_ptr<char, void (*)(void*)> real(realpath(path.c_str(), nullptr), std::free);
  if (!real) return false;
  resolved->assign(real.get());
  return true;
}

int CloseKeepingErrno(int fd) {
  const int error = errno;
  close(fd);
  errno = error;
  return -1;
}

}  // namespace

std::FILE* NativeFile::Open(const wchar_t* path, const char* mode) {
  return std::fopen(WideText::ToUtf8(path).c_str(), mode);
}

NativeFile::Handle NativeFile::OpenHandle(const wchar_t* path, const char* mode) {
  const int flags = OpenFlags(mode);
  if (flags < 0) {
    errno = EINVAL;
    return kNoHandle;
  }
  const std::string utf8 = WideText::ToUtf8(path);
  int fd = -1;
  do {
    fd = open(utf8.c_str(), flags | O_CLOEXEC, 0666);
  } while (fd < 0 && errno == EINTR);
  return fd < 0 ? kNoHandle : fd;
}

NativeFile::Handle NativeFile::OpenHandleLocked(const wchar_t* path, const char* mode, bool* busy) {
  *busy = false;
  const int flags = OpenFlags(mode);
  if (flags < 0) {
    errno = EINVAL;
    return kNoHandle;
  }
  const std::string utf8 = WideText::ToUtf8(path);
  for (int attempt = 0; attempt < kLockAttempts; ++attempt) {
    // Emptying waits for the lock: the file is cut only once it is ours.
    const int fd = open(utf8.c_str(), (flags & ~O_TRUNC) | O_CLOEXEC, 0666);
    if (fd < 0) return kNoHandle;
    if (FlockWithoutWaiting(fd) != 0) {
      *busy = errno == EWOULDBLOCK;
      return CloseKeepingErrno(fd);
    }
    if (!StillLinked(fd, utf8)) {
      close(fd);
      continue;
    }
    if ((flags & O_TRUNC) != 0 && ftruncate(fd, 0) != 0) return CloseKeepingErrno(fd);
    return fd;
  }
  errno = ENOENT;
  return kNoHandle;
}

std::int64_t NativeFile::ReadAt(Handle file, void* buffer, std::size_t bytes, std::uint64_t offset) {
  auto* at = static_cast<std::uint8_t*>(buffer);
  std::size_t done = 0;
  while (done < bytes) {
    const ssize_t got = pread(static_cast<int>(file), at + done, bytes - done, static_cast<off_t>(offset + done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return -1;
    if (got == 0) break;
    done += static_cast<std::size_t>(got);
  }
  return static_cast<std::int64_t>(done);
}

std::int64_t NativeFile::WriteAt(Handle file, const void* buffer, std::size_t bytes, std::uint64_t offset) {
  const auto* at = static_cast<const std::uint8_t*>(buffer);
  std::size_t done = 0;
  while (done < bytes) {
    const ssize_t put = pwrite(static_cast<int>(file), at + done, bytes - done, static_cast<off_t>(offset + done));
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return -1;
    if (put == 0) {
      errno = ENOSPC;
      return -1;
    }
    done += static_cast<std::size_t>(put);
  }
  return static_cast<std::int64_t>(done);
}

std::int64_t NativeFile::Length(Handle file) {
  struct stat status {};
  if (fstat(static_cast<int>(file), &status) != 0) return -1;
  return static_cast<std::int64_t>(status.st_size);
}

int NativeFile::SyncHandle(Handle file) {
  int result = 0;
  do {
    result = fdatasync(static_cast<int>(file));
  } while (result != 0 && errno == EINTR);
  return result;
}

int NativeFile::TruncateHandle(Handle file, std::uint64_t length) {
  int result = 0;
  do {
    result = ftruncate(static_cast<int>(file), static_cast<off_t>(length));
  } while (result != 0 && errno == EINTR);
  return result;
}

int NativeFile::CloseHandle(Handle file) { return close(static_cast<int>(file)); }

int NativeFile::Seek(std::FILE* file, std::int64_t offset, int origin) {
  return fseeko(file, static_cast<off_t>(offset), origin);
}

std::int64_t NativeFile::Tell(std::FILE* file) { return static_cast<std::int64_t>(ftello(file)); }

int NativeFile::Sync(std::FILE* file) {
  if (std::fflush(file) != 0) return -1;
  int result = 0;
  do {
    result = fsync(fileno(file));
  } while (result != 0 && errno == EINTR);
  return result;
}

int NativeFile::Truncate(std::FILE* file, std::uint64_t length) {
  if (std::fflush(file) != 0) return -1;
  return ftruncate(fileno(file), static_cast<off_t>(length));
}

int NativeFile::Remove(const wchar_t* path) { return std::remove(WideText::ToUtf8(path).c_str()); }

int NativeFile::Rename(const wchar_t* from, const wchar_t* to) {
  return std::rename(WideText::ToUtf8(from).c_str(), WideText::ToUtf8(to).c_str());
}

bool NativeFile::Exists(const wchar_t* path) {
  struct stat status {};
  return stat(WideText::ToUtf8(path).c_str(), &status) == 0;
}

std::wstring NativeFile::CanonicalPath(const wchar_t* path) {
  const std::string utf8 = WideText::ToUtf8(path);
  std::string resolved;
  if (utf8.empty()) return std::wstring();
  if (Resolve(utf8, &resolved)) return WideText::FromUtf8(resolved);
  // A missing file: its folder's canonical path and its own name.
  const std::size_t slash = utf8.find_last_of('/');
  const std::string folder = slash == std::string::npos ? "." : (slash == 0 ? "/" : utf8.substr(0, slash));
  const std::string name = slash == std::string::npos ? utf8 : utf8.substr(slash + 1);
  if (name.empty() || name == "." || name == ".." || !Resolve(folder, &resolved)) return std::wstring();
  if (resolved.back() != '/') resolved.push_back('/');
  return WideText::FromUtf8(resolved + name);
}

std::int64_t NativeFile::OtherOwner(const wchar_t* path) {
  struct stat status {};
  if (stat(WideText::ToUtf8(path).c_str(), &status) != 0 || status.st_uid == geteuid()) return -1;
  return static_cast<std::int64_t>(status.st_uid);
}

wchar_t NativeFile::Separator() { return L'/'; }

}  // namespace Tovrel
