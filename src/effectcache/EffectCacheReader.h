// EffectCacheReader: a cache folder's file opened for reading only, under
// the cache's named mutex, for operations that copy effects out of a cache
// without changing it (a merge into another folder).
//
// The package is opened read-only: a journal beside it is read as the
// rollback will leave the file, and nothing is ever written. The header
// and index are read with the checks a host's open makes; a folder whose
// file a host would not load gives a reader that is not Ok.
//
// Owned by the operation that reads; holds the mutex for its whole life,
// so keep it short. Thread-safety: none.
#ifndef TOVREL_EFFECTCACHE_EFFECTCACHEREADER_H
#define TOVREL_EFFECTCACHE_EFFECTCACHEREADER_H

#include <memory>

#include "effectcache/EffectCacheHeader.h"
#include "effectcache/EffectPayload.h"
#include "effectcache/EffectTable.h"
#include "host/AutoMutex.h"
#include "host/MutexObject.h"
#include "host/RefPtr.h"
#include "host/Tab.h"
#include "host/WStr.h"
#include "package/PagedFilePackage.h"

namespace Tovrel {

class EffectCacheReader {
 public:
  explicit EffectCacheReader(const WStr& folder);
  ~EffectCacheReader();
  EffectCacheReader(const EffectCacheReader&) = delete;
  EffectCacheReader& operator=(const EffectCacheReader&) = delete;

  // Why a reader is not Ok.
  enum class Failure {
    kNone,        // Ok
    kNoFile,      // the folder holds no cache file
    kNotACache,   // the file's bytes are not a cache a host would load
    kUnreadable,  // the file could not be read now (a failed file call, no
                  // memory, the mutex not had, a living writer's journal)
  };

  bool Ok() const { return package_.Get() != nullptr; }
  Failure Why() const { return why_; }
  const EffectTable& Entries() const { return entries_; }
  // Only while Ok.
  const PagedFilePackage& Package() const { return *package_; }
  PagedFilePackage& Package() { return *package_; }
  const EffectCacheHeader& Header() const { return header_; }
  // The effect's compressed bytes exactly as stored, once they are known
  // to decompress to the record's size (kOk), or why not.
  EffectPayload::Result ReadChecked(const EffectRecord& record, Tab<unsigned char>& compressed);

 private:
  std::unique_ptr<NorvaneSDK::Util::MutexObject> mutex_;
  std::unique_ptr<NorvaneSDK::Util::AutoMutex> hold_;
  RefPtr<PagedFilePackage> package_;  // null when the file could not be read as a cache
  Failure why_ = Failure::kNoFile;    // kNone exactly when package_ is not null
  EffectCacheHeader header_{};
  EffectTable entries_;
};

}  // namespace Tovrel

#endif
