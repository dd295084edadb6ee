// UnprivilegedUser: an account without privileges, for a test that must see
// the system's permissions stop a process while the test program runs as
// root (as CI runs it). The test gives a folder to the account, and a child
// process of the test program takes the account on before it works there.
//
// The account is "nobody", which every Debian system has. POSIX only: on
// Windows, Find finds none and Become fails. Plain value; the statics are
// safe from any thread.
#ifndef TOVREL_TESTS_UNPRIVILEGEDUSER_H
#define TOVREL_TESTS_UNPRIVILEGEDUSER_H

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace Tovrel {
namespace Testing {

class UnprivilegedUser {
 public:
  // True when this process runs as root, whom file permissions do not stop.
  static bool ThisProcessIsPrivileged();
  // The account; false, with the reason in *why, when there is none.
  static bool Find(UnprivilegedUser* user, std::string* why);
  // An account of the test's own, `name` in group `group` (both made with
  // groupadd and useradd when missing), whose home is `home` (made, and
  // given to it, mode 0700). Root only; false, with *why, otherwise.
  static bool Make(const std::string& name, const std::string& group, const std::filesystem::path& home,
                   UnprivilegedUser* user, std::string* why);

  // Makes the account the owner of `folder`; false, with *why, when it cannot.
  bool Own(const std::filesystem::path& folder, std::string* why) const;
  // Makes this process the account, its groups dropped, for good; false,
  // with *why, when that cannot be done or root remains.
  bool Become(std::string* why) const;

  // The account as words for a child's command line, and back.
  std::vector<std::string> ToWords() const;
  static UnprivilegedUser FromWords(const char* userId, const char* groupId);

  // Gives `folder` to the account and runs this test program's child
  // `role` (see ChildLauncher) with the folder's path and the account's
  // words; the role starts with BecomeFromArguments. The child's exit
  // status, or -2 with *why when there is no account or no child.
  static int RunChildAs(const std::string& role, const std::filesystem::path& folder, std::string* why);
  // In such a child: takes on the account its arguments name and gives
  // the folder's path; false, with *why, when it cannot.
  static bool BecomeFromArguments(int argc, char** argv, std::filesystem::path* folder, std::string* why);

  std::uint32_t userId = 0;
  std::uint32_t groupId = 0;
};

}  // namespace Testing
}  // namespace Tovrel

#endif
