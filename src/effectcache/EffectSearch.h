// EffectSearch: the search path of one effect cache object, in a room of
// its own: what a search reads, under which lock, and what it leaves for
// the object's changes to fold in.
//
// A search looks in the object's pending map, then in its index; it takes
// the object's lock shared and reads a stored effect's compressed bytes
// straight from the file (DirectStreamReader) without the named mutex
// while the file's save counter proves the view current (see
// CacheFileLock); otherwise it takes the object's lock alone and the named
// mutex (a hold taken to read) and reads through the package. It decodes
// outside every lock. Bytes that fail their checks send it to the locked
// path, then, when the file's change mark says the view was stale, to a
// reload; a name the file does not hold goes to the remote store, if any,
// without any lock, and what the store gives joins the pending map.
//
// Part of EffectCacheImpl (a friend of it, made and owned by it, living as
// long as it), whose fields it reads and, under its lock, changes.
// Thread-safety: any number of threads may search at once (see
// EffectCacheImpl for the locks).
#ifndef TOVREL_EFFECTCACHE_EFFECTSEARCH_H
#define TOVREL_EFFECTCACHE_EFFECTSEARCH_H

#include <cstdint>
#include <string>
#include <vector>

#include "effectcache/EffectPayload.h"
#include "effectcache/EffectRecord.h"
#include "host/Tab.h"

namespace Tovrel {

class EffectCacheImpl;

class EffectSearch {
 public:
  explicit EffectSearch(EffectCacheImpl& cache);
  EffectSearch(const EffectSearch&) = delete;
  EffectSearch& operator=(const EffectSearch&) = delete;

  // The effect named by `key` (UTF-8) into `data`; false for a miss.
  bool Search(const std::string& key, Tab<unsigned char>& data);

 private:
  // What a search found, and where.
  enum class Found {
    kPending,  // in the pending map: copied into the caller's Tab
    kStored,   // in the index: its record and compressed bytes are in hand
    kMissing,  // in neither (of a view proven current)
    kDamaged,  // in the index, but its bytes failed their checks
    kFailed,   // the cache is unusable, the mutex cannot be had, or the file is damaged
    kLocked,   // not known without the locks: ask under them
  };

  Found FindShared(const std::string& key, Tab<unsigned char>& data, EffectRecord* record,
                   std::vector<std::uint8_t>& compressed) const;
  Found FindLocked(const std::string& key, Tab<unsigned char>& data, EffectRecord* record,
                   std::vector<std::uint8_t>& compressed, bool again);
  Found FindPending(const std::string& key, Tab<unsigned char>& data) const;
  // Decompresses found bytes (a length-prefixed block) into `data`,
  // without any lock, and times it for the profile.
  EffectPayload::Result Decode(const EffectRecord& record, const std::vector<std::uint8_t>& compressed,
                               Tab<unsigned char>& data);
  // Notes an entry whose bytes failed their checks (if the index still
  // names that stream), under the object's lock.
  void NoteDamaged(const std::string& key, const EffectRecord& record);
  bool FetchFromRemote(const std::string& key, Tab<unsigned char>& data);

  EffectCacheImpl& cache_;
};

}  // namespace Tovrel

#endif
