// CacheWriteAccess: whether this process could write a cache file, and if
// not, why: the answer a host's cache acts on when it serves a file read
// only, and the one the tool reports.
//
// A cache writes its file only through the rollback journal beside it, so
// a folder that refuses new files (a deployed folder, mode 0555) makes a
// writable file as read only as a file without write permission.
//
// Stateless. Thread-safety: every member may be called from any thread;
// CanCreateJournal and Check create and remove the journal file, so call
// them with the file's named mutex held (no save can then be under way).
#ifndef TOVREL_EFFECTCACHE_CACHEWRITEACCESS_H
#define TOVREL_EFFECTCACHE_CACHEWRITEACCESS_H

#include <string>

namespace Tovrel {

class CacheWriteAccess {
 public:
  enum class Why {
    kWritable,         // the file and its journal can be written
    kOtherOwner,       // the file belongs to another user
    kFileNotWritable,  // the file opens for reading and not for update
    kNoJournal,        // the journal beside the file cannot be created
    kWriteFailed,      // a write the open needed failed (no space left)
  };

  // What a host's cache would find for the file at that path now; a
  // missing file is kWritable when its journal can be created.
  static Why Check(const std::wstring& cacheFilePath);
  // True when the journal of that file can be created now: it is created
  // (with the lock a writer takes) and removed again. A journal already
  // there is left alone and counts as true: a writer made it.
  static bool CanCreateJournal(const std::wstring& cacheFilePath);
  // The words the tool shows: "read and write", or "read only: " and why.
  static const char* Describe(Why why);
};

}  // namespace Tovrel

#endif
