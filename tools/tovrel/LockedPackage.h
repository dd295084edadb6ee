// LockedPackage: a package file opened for the tool to read, under the
// named mutex that the effect cache takes for that file.
//
// The mutex is named as EffectCacheImpl names it for a cache file of that
// path, so while the tool reads a cache file no host process saves into
// it, whichever way the tool reached the file (a package command or an
// effects command); and the hold moves the file's save counter (see
// CacheFileLock), so hosts that search without the mutex look again. For any other package the mutex is simply one no
// host takes. The package is opened for reading only while the mutex is
// held, and let go before the mutex is: the tool writes nothing to the
// file, unless it opened it for update (to compact it). A journal that an interrupted save left beside the file is not
// rolled back but read: the package is the file as the rollback will
// leave it when the library next opens it, and Journal() tells about it.
//
// A missing file is refused before OpenFilePackage is asked (which would
// leave an empty file behind). A file that does not open as a package is
// refused with the reason the package's loader gives.
//
// Owned by the command that reads, for the length of its reading.
// Thread-safety: none; the mutex belongs to the thread that made it.
#ifndef TOVREL_TOOL_LOCKEDPACKAGE_H
#define TOVREL_TOOL_LOCKEDPACKAGE_H

#include <cstdint>
#include <memory>
#include <string>

#include "UserPath.h"
#include "effectcache/CacheFileLock.h"
#include "host/RefPtr.h"
#include "package/PagedFilePackage.h"
#include "pagefile/RollbackJournal.h"

namespace Tovrel {
namespace Tool {

class LockedPackage {
 public:
  static constexpr std::uint64_t kCachePages = 64;

  // Holds the mutex of `file`, then opens it (for update, rolling back an
  // interrupted save first, when asked). ToolError (unreadable) when the
  // file is missing, is a folder, or is not a package.
  LockedPackage(const UserPath& file, std::uint64_t streamLimit, bool forUpdate = false);
  ~LockedPackage();
  LockedPackage(const LockedPackage&) = delete;
  LockedPackage& operator=(const LockedPackage&) = delete;

  PagedFilePackage& Package() const { return *package_; }
  const UserPath& File() const { return file_; }
  // The file's size: when a journal will roll it back, the size it will
  // then have.
  std::uint64_t FileSize() const { return fileSize_; }
  // The journal beside the file, if any, as it was when the file was opened.
  const RollbackJournal::Found& Journal() const { return journal_; }
  // A sentence on the journal for a report ("" when there is none).
  std::string JournalNote() const;

 private:
  // Why the package does not open, in words, with the mutex still held.
  std::string WhyUnreadable(const PagedFilePackageConfig& config) const;

  UserPath file_;
  std::uint64_t fileSize_;
  RollbackJournal::Found journal_;
  std::unique_ptr<CacheFileLock> lock_;        // never null
  std::unique_ptr<CacheFileLock::Hold> hold_;  // held for the object's life
  RefPtr<PagedFilePackage> package_;                      // never null after construction
};

}  // namespace Tool
}  // namespace Tovrel

#endif
