#include "support/UnprivilegedUser.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#ifndef _WIN32
#include <grp.h>
#include <pwd.h>
#include <sys/types.h>
#include <unistd.h>
#endif

namespace Tovrel {
namespace Testing {

#ifndef _WIN32

namespace {

constexpr const char* kAccount = "nobody";

std::string Failed(const std::string& what) { return what + ": " + std::strerror(errno); }

}  // namespace

bool UnprivilegedUser::ThisProcessIsPrivileged() { return geteuid() == 0; }

bool UnprivilegedUser::Find(UnprivilegedUser* user, std::string* why) {
  errno = 0;
  const passwd* entry = getpwnam(kAccount);
  if (entry == nullptr) {
    *why = errno != 0 ? Failed(std::string("looking up the account ") + kAccount)
                      : std::string("this system has no account ") + kAccount;
    return false;
  }
  user->userId = entry->pw_uid;
  user->groupId = entry->pw_gid;
  return true;
}

bool UnprivilegedUser::Own(const std::filesystem::path& folder, std::string* why) const {
  if (chown(folder.c_str(), userId, groupId) == 0) return true;
  *why = Failed("giving " + folder.string() + " to " + kAccount);
  return false;
}

bool UnprivilegedUser::Become(std::string* why) const {
  if (setgroups(0, nullptr) != 0) {
    *why = Failed("dropping the groups");
    return false;
  }
  if (setgid(groupId) != 0 || setuid(userId) != 0) {
    *why = Failed(std::string("becoming ") + kAccount);
    return false;
  }
  if (geteuid() == 0 || getegid() == 0) {
    *why = "still root after becoming " + std::string(kAccount);
    return false;
  }
  return true;
}

#else

bool UnprivilegedUser::ThisProcessIsPrivileged() { return false; }

bool UnprivilegedUser::Find(UnprivilegedUser*, std::string* why) {
  *why = "Windows has no account to drop to";
  return false;
}

bool UnprivilegedUser::Own(const std::filesystem::path&, std::string* why) const {
  *why = "Windows has no account to give a folder to";
  return false;
}

bool UnprivilegedUser::Become(std::string* why) const {
  *why = "Windows has no account to become";
  return false;
}

#endif

std::vector<std::string> UnprivilegedUser::ToWords() const {
  return {std::to_string(userId), std::to_string(groupId)};
}

UnprivilegedUser UnprivilegedUser::FromWords(const char* userId, const char* groupId) {
  UnprivilegedUser user;
  user.userId = static_cast<std::uint32_t>(std::strtoul(userId, nullptr, 10));
  user.groupId = static_cast<std::uint32_t>(std::strtoul(groupId, nullptr, 10));
  return user;
}

}  // namespace Testing
}  // namespace Tovrel
