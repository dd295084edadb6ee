#include "effectcache/CacheWriteAccess.h"

#include "pagefile/RollbackJournal.h"
#include "platform/PlatformFile.h"

namespace Tovrel {

CacheWriteAccess::Why CacheWriteAccess::Check(const std::wstring& cacheFilePath) {
  if (PlatformFile::OtherOwner(cacheFilePath.c_str()) >= 0) return Why::kOtherOwner;
  if (PlatformFile::Exists(cacheFilePath.c_str())) {
    FileHandle* probe = PlatformFile::Open(cacheFilePath.c_str(), "r+b");
    if (probe == nullptr) return Why::kFileNotWritable;
    PlatformFile::Close(probe);
  }
  return CanCreateJournal(cacheFilePath) ? Why::kWritable : Why::kNoJournal;
}

bool CacheWriteAccess::CanCreateJournal(const std::wstring& cacheFilePath) {
  const std::wstring journal = RollbackJournal::PathFor(cacheFilePath);
  if (PlatformFile::Exists(journal.c_str())) return true;
  bool busy = false;
  FileHandle* probe = PlatformFile::OpenLocked(journal.c_str(), "w+b", &busy);
  if (probe == nullptr) return busy;
  // Removed while still locked where the system allows it, as a writer
  // removes its journal. An empty journal left behind would be one whose
  // writer died before it wrote anything: the next opener deletes it.
  const bool removed = PlatformFile::Remove(journal.c_str()) == 0;
  PlatformFile::Close(probe);
  if (!removed) PlatformFile::Remove(journal.c_str());
  return true;
}

const char* CacheWriteAccess::Describe(Why why) {
  switch (why) {
    case Why::kWritable:
      return "read and write";
    case Why::kOtherOwner:
      return "read only: the file belongs to another user";
    case Why::kFileNotWritable:
      return "read only: the file may not be written";
    case Why::kNoJournal:
      return "read only: cannot create the journal";
    case Why::kWriteFailed:
      return "read only: a write failed (no space left?)";
  }
  return "read only";
}

}  // namespace Tovrel
