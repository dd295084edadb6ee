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

  bool Ok() const { return package_.Get() != nullptr; }
  const EffectTable& Entries() const { return entries_; }
  // The effect's compressed bytes exactly as stored, once they are known
  // to decompress to the record's size (kOk), or why not.
  EffectPayload::Result ReadChecked(const EffectRecord& record, Tab<unsigned char>& compressed);

 private:
  std::unique_ptr<NorvaneSDK::Util::MutexObject> mutex_;
  std::unique_ptr<NorvaneSDK::Util::AutoMutex> hold_;
  RefPtr<PagedFilePackage> package_;  // null when the file could not be read as a cache
  EffectTable entries_;
};

}  // namespace Tovrel

#endif
