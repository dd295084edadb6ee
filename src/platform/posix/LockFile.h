// LockFile: an empty file used only for its flock, named after a kernel
// object.
//
// The POSIX stand-in for the kernel's own bookkeeping of named objects: the
// lock files of named mutexes and of shared-memory holders live in the
// user's own object folder (ObjectFolder), opened without following links.
// A name that would not fit into a file name is shortened by ObjectName's
// rule.
//
// A lock file is created once and never removed, by this process or any
// other: whoever opens the path meets the one file every other user of the
// name has open, so no wait has to check that the file it locked is still
// the linked one. (Builds up to 0.2 removed unused lock files; processes of
// those builds and of this one must not share a name.)
//
// Owns its descriptor, opened close-on-exec so that no child process ever
// inherits a lock; closing drops any lock held through it. flock locks
// belong to the open file, so two LockFiles of one path in one process
// exclude each other like two processes do.
// Thread-safety: none; the owner serialises calls.
#ifndef TOVREL_PLATFORM_POSIX_LOCKFILE_H
#define TOVREL_PLATFORM_POSIX_LOCKFILE_H

#include <string>

namespace Tovrel {

class LockFile {
 public:
  // The file for object `name` (UTF-8) with `suffix` appended.
  LockFile(const std::string& name, const char* suffix);
  ~LockFile();
  LockFile(const LockFile&) = delete;
  LockFile& operator=(const LockFile&) = delete;

  const std::string& Path() const { return path_; }
  bool IsOpen() const { return fd_ >= 0; }

  // Opens the file, creating it when missing; false with errno set.
  bool Open();
  // Closes the descriptor (dropping its lock), keeping errno.
  void Close();
  // flock(operation) on the open file, retried when a signal interrupts;
  // true on success, false with errno set (EWOULDBLOCK: LOCK_NB refused).
  bool Flock(int operation);

 private:
  std::string path_;
  int fd_;  // open descriptor, or -1
};

}  // namespace Tovrel

#endif
