// EffectCacheMaintenance: what the people who look after a cache folder do
// to it from outside a host: remove named effects, clear it, trim it to a
// size or an age, merge other caches into it, compact its file, salvage
// what is intact in a damaged one.
//
// Each operation first checks the tables of the folder's file (the
// package's and the index; EffectCacheVerifier::CheckFolderTables) and
// refuses a file that fails them, or that a host would not load, with
// `damaged` set and nothing changed: moving or removing streams of damaged
// tables could spoil what is intact, and a host's open would replace the
// file. Then it opens the folder's cache as a host would (an interrupted
// save is rolled back first), removes what it chose in one crash-safe save
// under the cache's named mutex, and renews the shared time stamp, so that
// hosts using the folder at the same time reload before their next search
// or save; nothing else in the file changes. Permanent effects are removed
// only by name or by a full clear. A dry run reports what would go and
// writes nothing.
//
// Stateless; each call makes and drops its own cache object, so calls may
// come from any thread.
#ifndef TOVREL_EFFECTCACHE_EFFECTCACHEMAINTENANCE_H
#define TOVREL_EFFECTCACHE_EFFECTCACHEMAINTENANCE_H

#include <cstdint>
#include <string>
#include <vector>

#include "effectcache/EffectCacheSalvage.h"
#include "host/WStr.h"

namespace Tovrel {

class EffectCacheMaintenance {
 public:
  struct Result {
    bool ok = false;                   // false: the cache could not be opened or saved
    bool damaged = false;              // the file is damaged (then not ok): nothing was done
    std::uint64_t removedEffects = 0;
    std::uint64_t removedBytes = 0;    // stored (compressed) bytes of the removed effects
    std::uint64_t keptEffects = 0;
    std::uint64_t keptBytes = 0;       // stored bytes left
    std::vector<std::string> notFound; // names asked for that the cache does not hold
  };
  // A trim: every rule given applies (an effect goes if any rule picks it).
  struct TrimRule {
    bool bySize = false;
    std::uint64_t maxStoredBytes = 0;  // remove, oldest last use first, until the stored bytes are below
    bool byAge = false;
    std::int64_t maxAgeSeconds = 0;    // remove every effect not used for longer than this
  };

  // Removes the effects of these UTF-8 names, permanent or not.
  static Result Remove(const WStr& folder, const std::vector<std::string>& names, bool dryRun);
  // Removes every effect, or every non-permanent one.
  static Result Clear(const WStr& folder, bool keepPermanent, bool dryRun);
  // Removes non-permanent effects by the rule, `now` being the current
  // time in CacheTimeStamp seconds (UTC).
  static Result Trim(const WStr& folder, const TrimRule& rule, std::int64_t now, bool dryRun);
  // What a merge did.
  struct MergeResult {
    bool ok = false;                        // false: the destination could not be opened or saved
    bool damaged = false;                   // the destination's file is damaged (then not ok): nothing was done
    std::uint64_t copiedEffects = 0;        // stored into the destination
    std::uint64_t copiedBytes = 0;          // their stored (compressed) bytes
    std::uint64_t keptEffects = 0;          // names the destination already held as recently used or more
    std::uint64_t damagedEffects = 0;       // found in a source but not readable there: not copied
    std::vector<std::size_t> unreadableSources;  // sources without a cache a host would load, or damaged
  };
  // Copies effects from the source folders into `destination`: a name held
  // in several keeps the copy with the newest last use (the destination's
  // own if it is as new), permanence and last use as they were, compressed
  // bytes as stored (no recompression; each is checked to decompress
  // first). The sources are only read, each under its own mutex; the
  // destination changes in one crash-safe save. The copies are held in
  // memory until that save.
  static MergeResult Merge(const WStr& destination, const std::vector<WStr>& sources);
  // What a compaction did.
  struct CompactResult {
    bool ok = false;                 // false: the cache could not be opened or compacted
    bool damaged = false;            // the file is damaged (then not ok): nothing was done
    std::uint64_t fileBytesBefore = 0;
    std::uint64_t fileBytesAfter = 0;
  };
  // Shrinks the cache file to the pages it uses (tails packed, pages
  // moved, the file cut) in one crash-safe save; every effect stays as it
  // was.
  static CompactResult Compact(const WStr& folder);
  // Zeroes the folder's hit statistics (their time becomes now); false when
  // the cache could not be opened or saved, or is damaged (`damaged` set,
  // when given).
  static bool ZeroStatistics(const WStr& folder, bool* damaged = nullptr);

  // What a salvage on demand did.
  struct SalvageResult {
    bool ok = false;      // false: no cache file, or it could not be read or written now
    bool noFile = false;  // the folder holds no cache file
    bool needed = false;  // false: the file passed every check, and nothing changed
    std::uint64_t effects = 0;          // when not needed: the sound file's effects
    EffectCacheSalvage::Summary summary;  // when needed: what was kept and dropped
  };
  // Checks the folder's file deeply (EffectCacheVerifier); a file that
  // fails a check is salvaged as a host salvages one that does not load
  // (see EffectCacheSalvage): what is proven intact is kept, the rest
  // dropped, the former file kept as "<file>-damaged". A sound file is
  // left as it is. Unlike the other operations, a damaged file is the
  // point, not a refusal.
  static SalvageResult Salvage(const WStr& folder);

  // What the check before an operation found.
  enum class Check { kSound, kNoFile, kDamaged, kUnreadable };
  static Check CheckFolder(const WStr& folder);
};

}  // namespace Tovrel

#endif
