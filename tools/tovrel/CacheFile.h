// CacheFile: an effect cache folder's file, opened for the tool to read:
// its header block and its index, read as the cache reads them, under the
// cache's named mutex (through LockedPackage), with nothing written.
//
// A folder without a cache file, or a file that the cache would not load
// (no header block of the right version, an index stream that is missing
// or damaged), is refused with a ToolError of the unreadable status: a
// host opening that folder would start an empty cache there instead. The
// effects' own streams are read only when asked (Read).
//
// Owned by the command that reads, for the length of its reading; the
// mutex is held all that time. Thread-safety: none.
#ifndef TOVREL_TOOL_CACHEFILE_H
#define TOVREL_TOOL_CACHEFILE_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "LockedPackage.h"
#include "UserPath.h"
#include "effectcache/EffectCacheHeader.h"
#include "effectcache/EffectPayload.h"
#include "effectcache/EffectRecord.h"
#include "effectcache/EffectTable.h"
#include "host/Tab.h"

namespace Tovrel {
namespace Tool {

class CacheFile {
 public:
  // The UTF-8 name as stored, and the record.
  using Entry = EffectTable::Entry;

  // The cache file of a folder: the path the library gives it.
  static UserPath FileOf(const UserPath& folder);

  // Opens and reads the folder's cache file; ToolError (unreadable) when
  // there is none or it is not a cache the library would load.
  explicit CacheFile(const UserPath& folder);

  // Why a change to the folder's cache failed, for its message: ": the
  // effect cache could not be <what>", with " (read only: ...)" when a
  // host could not write the file (see CacheWriteAccess).
  static std::string ChangeFailed(const UserPath& folder, const std::string& what);

  const UserPath& Folder() const { return folder_; }
  const UserPath& File() const { return file_->File(); }
  std::uint64_t FileSize() const { return file_->FileSize(); }
  PagedFilePackage& Package() const { return file_->Package(); }
  const LockedPackage& Locked() const { return *file_; }
  const EffectCacheHeader& Header() const { return header_; }
  // The index's entries in the order it holds them.
  const std::vector<Entry>& Entries() const { return entries_; }
  // The entry of that name (the last, if the index holds it twice); null if none.
  const Entry* Find(const std::string& name) const;

  // Reads and decompresses one effect; why not, when it cannot.
  EffectPayload::Result Read(const Entry& entry, Tab<unsigned char>& data) const;

 private:
  void ReadHeader();
  void ReadIndex();
  [[noreturn]] void Refuse(const std::string& why) const;

  UserPath folder_;
  std::unique_ptr<LockedPackage> file_;  // never null after construction
  EffectCacheHeader header_;
  std::vector<Entry> entries_;
};

}  // namespace Tool
}  // namespace Tovrel

#endif
