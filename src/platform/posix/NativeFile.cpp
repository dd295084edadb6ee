#include "platform/NativeFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

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

}  // namespace

std::FILE* NativeFile::Open(const wchar_t* path, const char* mode) {
  return std::fopen(WideText::ToUtf8(path).c_str(), mode);
}

std::FILE* NativeFile::OpenLocked(const wchar_t* path, const char* mode, bool* busy) {
  *busy = false;
  const std::string utf8 = WideText::ToUtf8(path);
  const bool create = mode[0] == 'w';
  for (int attempt = 0; attempt < kLockAttempts; ++attempt) {
    const int fd = open(utf8.c_str(), O_RDWR | O_CLOEXEC | (create ? O_CREAT : 0), 0666);
    if (fd < 0) return nullptr;
    if (FlockWithoutWaiting(fd) != 0) {
      const int error = errno;
      close(fd);
      *busy = error == EWOULDBLOCK;
      errno = error;
      return nullptr;
    }
    if (!StillLinked(fd, utf8)) {
      close(fd);
      continue;
    }
    if (create && ftruncate(fd, 0) != 0) {
      const int error = errno;
      close(fd);
      errno = error;
      return nullptr;
    }
    std::FILE* file = fdopen(fd, "r+b");
    if (file == nullptr) {
      const int error = errno;
      close(fd);
      errno = error;
    }
    return file;
  }
  errno = ENOENT;
  return nullptr;
}

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

wchar_t NativeFile::Separator() { return L'/'; }

}  // namespace Tovrel
