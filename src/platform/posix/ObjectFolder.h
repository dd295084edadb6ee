// ObjectFolder: the folder where this process's user keeps the files of its
// named kernel objects (the lock files of named mutexes, shared blocks and
// their companion files).
//
// Named objects belong to their user, as Windows' session-local names do:
// another local user can neither open them nor, by making a file or folder
// of the same name first, stop this user's caches from working. The folder
// is the first of these that belongs to the user, is a real folder (not a
// link) and that nobody else may enter or write:
//   1. "tovrel-<uid>" in /dev/shm (in /tmp where /dev/shm cannot be
//      written), made with mode 0700 when missing;
//   2. ".tovrel-objects" in the user's home folder, made the same way.
// Every process of a user walks the same list and stops at the same folder;
// one that someone else made first is passed over. $XDG_RUNTIME_DIR is not
// used: some of a user's processes (services, scheduled jobs) run without
// it, and processes of one user must meet in one folder.
//
// Stateless apart from a cache of the answer; safe from any thread.
#ifndef TOVREL_PLATFORM_POSIX_OBJECTFOLDER_H
#define TOVREL_PLATFORM_POSIX_OBJECTFOLDER_H

#include <string>

namespace Tovrel {

class ObjectFolder {
 public:
  // The folder's path; empty, with errno set, when no candidate is this
  // user's own. A folder that went away since (a system service may clear
  // a logged-out user's /dev/shm) is looked for, and made, afresh.
  static std::string Path();

  // True when `path` is a folder (not a link) owned by `userId` that no one
  // else may write or enter.
  static bool IsPrivate(const std::string& path, unsigned userId);

  // The first usable candidate under the given parents (tried in order),
  // made when missing; empty when none is. For tests.
  static std::string Choose(const std::string& sharedParent, const std::string& homeParent, unsigned userId);
};

}  // namespace Tovrel

#endif
