// EffectCacheSalvage: what can be proven intact in a damaged cache file,
// to be carried into the file that replaces it.
//
// Collect reads a cache file's package opened for reading only: the header
// block, whose own checks must hold (a file that fails them, a foreign
// file, or one whose index stream does not exist is not salvaged: a host
// replaces it empty), then the index entries one after the other for as
// far as they can be read and decoded, then each entry's stream. An
// effect is kept when
//   - its stream reads back whole and holds exactly the recorded
//     compressed size, which decompresses to exactly the recorded size
//     with zlib's checksum;
//   - no other entry read names the same stream, or the same name (a
//     damaged stream number could otherwise give one effect's bytes to
//     another name: both entries go);
//   - its name keeps the index's name order with the entries beside it
//     (the library writes its index in name order, and a damaged name
//     mostly breaks it; an index mostly out of order, another writer's,
//     is not judged so);
//   - its stream is not the index's.
// The index has no checksum: a damaged name that keeps the order cannot
// be told from a true one, here or when a host loads the file.
// Everything else is dropped. A kept effect keeps its name, its last-use
// time, its permanence (as 0 or 1) and its compressed bytes exactly as
// stored.
//
// Bounds: the index is read no further than the file's length; each
// effect's bytes are bounded by the compress bound of the largest effect;
// the kept bytes, held in memory until the new file is written, are each
// a distinct stream of the file, so they come to at most the file's size,
// and the work is linear in it (the entries are sorted once).
//
// KeepDamagedCopy copies the file's bytes to "<file>-damaged" through a
// temporary file that is synced and then renamed over the former copy: the
// latest damaged file stays beside the new one for inspection, and nothing
// ever salvages the copy.
//
// Stateless. Thread-safety: call with the cache file's named mutex held,
// so that no host writes the file meanwhile.
#ifndef TOVREL_EFFECTCACHE_EFFECTCACHESALVAGE_H
#define TOVREL_EFFECTCACHE_EFFECTCACHESALVAGE_H

#include <cstdint>
#include <string>
#include <vector>

#include "effectcache/EffectRecord.h"
#include "host/Tab.h"
#include "package/PagedFilePackage.h"

namespace Tovrel {

class EffectCacheSalvage {
 public:
  static constexpr const wchar_t* kDamagedSuffix = L"-damaged";

  enum class Verdict {
    kSalvaged,    // the entries were read as far as they could be; `kept` is what was proven
    kNotACache,   // no cache header that passes its checks, or no index stream: nothing to salvage
    kUnreadable,  // a file call failed or memory ran out: nothing is proven, nothing may be replaced
  };
  struct Effect {
    std::string name;
    EffectRecord record;
    Tab<unsigned char> compressed;  // as stored
  };
  // What a salvage found (and, once the file was replaced, carried over).
  struct Summary {
    Verdict verdict = Verdict::kNotACache;
    std::uint64_t fileBytes = 0;        // the damaged file's length
    std::uint64_t recordedEffects = 0;  // the header's count
    std::uint64_t readEntries = 0;      // index entries that could be read
    std::uint64_t keptEffects = 0;
    std::uint64_t keptBytes = 0;        // their compressed bytes
    std::vector<std::string> dropped;   // names of entries read but not kept
  };
  struct Found {
    Summary summary;
    std::vector<Effect> kept;  // in the index's order
  };

  // Opens the file of `config` for reading only and collects from it.
  static Found Collect(const PagedFilePackageConfig& config);
  // Collects from a package already open.
  static Found CollectFrom(PagedFilePackage& package);
  static std::wstring DamagedCopyPath(const std::wstring& cacheFilePath);
  // False, with nothing left behind but a former copy, when the copy
  // could not be made whole (no space, a failed call).
  static bool KeepDamagedCopy(const std::wstring& cacheFilePath);
};

}  // namespace Tovrel

#endif
