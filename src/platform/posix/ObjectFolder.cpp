#include "platform/posix/ObjectFolder.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <vector>

namespace Tovrel {

namespace {

// Makes `path` private to the user when missing; true when it is (or now
// is) the user's own private folder.
bool Usable(const std::string& path, unsigned userId) {
  if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return false;
  return ObjectFolder::IsPrivate(path, userId);
}

std::string HomeOf(unsigned userId) {
  std::vector<char> buffer(16384);
  struct passwd entry {};
  struct passwd* found = nullptr;
  if (getpwuid_r(userId, &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr ||
      found->pw_dir == nullptr) {
    return std::string();
  }
  return found->pw_dir;
}

std::string SharedParent() { return access("/dev/shm", W_OK | X_OK) == 0 ? "/dev/shm" : "/tmp"; }

}  // namespace

bool ObjectFolder::IsPrivate(const std::string& path, unsigned userId) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) return false;
  if (!S_ISDIR(status.st_mode) || status.st_uid != userId || (status.st_mode & 077) != 0) {
    errno = EACCES;
    return false;
  }
  return true;
}

std::string ObjectFolder::Choose(const std::string& sharedParent, const std::string& homeParent, unsigned userId) {
  const std::string shared = sharedParent + "/tovrel-" + std::to_string(userId);
  if (Usable(shared, userId)) return shared;
  if (!homeParent.empty()) {
    const std::string home = homeParent + "/.tovrel-objects";
    if (Usable(home, userId)) return home;
  }
  errno = EACCES;
  return std::string();
}

std::string ObjectFolder::Path() {
  // Never destroyed, so that named objects of static lifetime may still be
  // made and closed while the process exits.
  static std::mutex* const lock = new std::mutex;
  static std::string* const held = new std::string;
  std::string& chosen = *held;
  const unsigned userId = geteuid();
  std::lock_guard<std::mutex> hold(*lock);
  if (!chosen.empty() && IsPrivate(chosen, userId)) return chosen;
  chosen = Choose(SharedParent(), HomeOf(userId), userId);
  return chosen;
}

}  // namespace Tovrel
