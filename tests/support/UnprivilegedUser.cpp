#include "support/UnprivilegedUser.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#ifndef _WIN32
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>
#endif

#include "support/ChildLauncher.h"

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

bool UnprivilegedUser::Make(const std::string& name, const std::string& group, const std::filesystem::path& home,
                            UnprivilegedUser* user, std::string* why) {
  if (!ThisProcessIsPrivileged()) {
    *why = "only root can make accounts";
    return false;
  }
  std::filesystem::create_directories(home);
  const std::string quiet = " > /dev/null 2>&1";
  const bool known = getpwnam(name.c_str()) != nullptr;
  const std::string account = known ? "usermod -d '" + home.string() + "' -g " + group + " " + name
                                    : "useradd -M -d '" + home.string() + "' -g " + group +
                                          " -s /usr/sbin/nologin " + name;
  if (std::system(("groupadd -f " + group + quiet).c_str()) != 0 || std::system((account + quiet).c_str()) != 0) {
    *why = "groupadd or useradd failed for " + name;
    return false;
  }
  const passwd* entry = getpwnam(name.c_str());
  if (entry == nullptr) {
    *why = "the account " + name + " was not made";
    return false;
  }
  user->userId = entry->pw_uid;
  user->groupId = entry->pw_gid;
  if (chown(home.c_str(), user->userId, user->groupId) != 0 || chmod(home.c_str(), 0700) != 0) {
    *why = Failed("giving " + home.string() + " to " + name);
    return false;
  }
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
    *why = Failed("becoming user " + std::to_string(userId));
    return false;
  }
  if (geteuid() == 0 || getegid() == 0) {
    *why = "still root after becoming user " + std::to_string(userId);
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

bool UnprivilegedUser::Make(const std::string&, const std::string&, const std::filesystem::path&,
                            UnprivilegedUser*, std::string* why) {
  *why = "Windows has no accounts a test can make";
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

int UnprivilegedUser::RunChildAs(const std::string& role, const std::filesystem::path& folder, std::string* why) {
  UnprivilegedUser user;
  if (!Find(&user, why) || !user.Own(folder, why)) return -2;
  std::vector<std::string> words{folder.u8string()};
  for (const std::string& word : user.ToWords()) words.push_back(word);
  auto child = ChildLauncher::Start(role, words);
  if (child == nullptr) {
    *why = "the child " + role + " could not be started";
    return -2;
  }
  return ChildLauncher::Finish(*child);
}

bool UnprivilegedUser::BecomeFromArguments(int argc, char** argv, std::filesystem::path* folder, std::string* why) {
  if (argc != 3) {
    *why = "a child run as another account takes a folder, a user id and a group id";
    return false;
  }
  *folder = std::filesystem::u8path(argv[0]);
  return FromWords(argv[1], argv[2]).Become(why);
}

UnprivilegedUser UnprivilegedUser::FromWords(const char* userId, const char* groupId) {
  UnprivilegedUser user;
  user.userId = static_cast<std::uint32_t>(std::strtoul(userId, nullptr, 10));
  user.groupId = static_cast<std::uint32_t>(std::strtoul(groupId, nullptr, 10));
  return user;
}

}  // namespace Testing
}  // namespace Tovrel
