#include "platform/posix/LockFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/ObjectName.h"

namespace Tovrel {

namespace {

constexpr std::size_t kFileNameLimit = 255;

// /dev/shm when this process may create files there, else /tmp.
const std::string& Directory() {
  static const std::string directory = access("/dev/shm", W_OK | X_OK) == 0 ? "/dev/shm" : "/tmp";
  return directory;
}

}  // namespace

LockFile::LockFile(const std::string& name, const char* suffix) : fd_(-1) {
  const std::size_t room = kFileNameLimit - std::strlen(suffix);
  path_ = Directory() + "/" + ObjectName::Shorten(name, room) + suffix;
}

LockFile::~LockFile() { Close(); }

bool LockFile::Open() {
  if (fd_ >= 0) return true;
  do {
    fd_ = open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  } while (fd_ < 0 && errno == EINTR);
  return fd_ >= 0;
}

void LockFile::Close() {
  if (fd_ < 0) return;
  const int saved = errno;
  close(fd_);
  fd_ = -1;
  errno = saved;
}

bool LockFile::Flock(int operation) {
  int result = 0;
  do {
    result = flock(fd_, operation);
  } while (result != 0 && errno == EINTR);
  return result == 0;
}

bool LockFile::IsLinked() const {
  // These files are only ever created at their path and unlinked from it,
  // never renamed or linked elsewhere: an open file that still has a link
  // is the one at the path. Asking the open file costs no path lookup,
  // which matters on every lock of a busy cache.
  struct stat opened {};
  return fd_ >= 0 && fstat(fd_, &opened) == 0 && opened.st_nlink > 0;
}

void LockFile::CloseAndRemoveIfUnused() {
  if (fd_ < 0) return;
  const int saved = errno;
  if (Flock(LOCK_EX | LOCK_NB) && IsLinked()) unlink(path_.c_str());
  errno = saved;
  Close();
}

}  // namespace Tovrel
