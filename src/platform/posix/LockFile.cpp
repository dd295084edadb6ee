#include "platform/posix/LockFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/ObjectName.h"
#include "platform/posix/ObjectFolder.h"

namespace Tovrel {

namespace {

constexpr std::size_t kFileNameLimit = 255;

}  // namespace

LockFile::LockFile(const std::string& name, const char* suffix) : fd_(-1) {
  const std::string folder = ObjectFolder::Path();
  if (folder.empty()) return;  // Open fails: no folder of this user's own
  const std::size_t room = kFileNameLimit - std::strlen(suffix);
  path_ = folder + "/" + ObjectName::Shorten(name, room) + suffix;
}

LockFile::~LockFile() { Close(); }

bool LockFile::Open() {
  if (fd_ >= 0) return true;
  if (path_.empty()) {
    errno = EACCES;
    return false;
  }
  do {
    fd_ = open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
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

}  // namespace Tovrel
