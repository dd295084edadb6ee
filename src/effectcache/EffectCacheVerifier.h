// EffectCacheVerifier: the deep check of a cache folder's file, beyond what
// a host's open checks: the package's own tables (PackageVerifier), that
// the index and the streams agree (each effect's stream its own, no name
// twice, no stream without an effect), and that every effect decompresses
// to its recorded size.
//
// CheckAll (and its parts) serve any holder of an open cache file (the
// tool's readers); VerifyFolder opens the folder's file for reading only
// under the cache's named mutex, runs every check and lets both go.
// Nothing is ever written.
//
// Stateless; VerifyFolder may be called from any thread.
#ifndef TOVREL_EFFECTCACHE_EFFECTCACHEVERIFIER_H
#define TOVREL_EFFECTCACHE_EFFECTCACHEVERIFIER_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "effectcache/EffectPayload.h"
#include "effectcache/EffectTable.h"
#include "host/Tab.h"
#include "host/WStr.h"
#include "package/PagedFilePackage.h"

namespace Tovrel {

class EffectCacheVerifier {
 public:
  using Entries = std::vector<EffectTable::Entry>;
  // Told the effects checked so far, of `total`, after each effect.
  using Progress = std::function<void(std::uint64_t done, std::uint64_t total)>;
  // Reads one effect and decompresses it (to `data`).
  using ReadEffect = std::function<EffectPayload::Result(const EffectTable::Entry& entry, Tab<unsigned char>& data)>;

  // Names given twice, streams shared by two effects, and streams of the
  // package that belong to no effect (the index's stream excepted).
  static void CheckIndex(const IDataStreamSet& package, std::uint64_t indexStreamId, const Entries& entries,
                         std::vector<std::string>& problems);
  // Each effect that does not read back through `read`.
  static void CheckEffects(const Entries& entries, const ReadEffect& read, const Progress& progress,
                           std::vector<std::string>& problems);

  // Every check of an open cache file: the package's tables (against
  // `fileSize`, the file's length), then CheckIndex, then CheckEffects.
  static std::vector<std::string> CheckAll(PagedFilePackage& package, std::uint64_t fileSize,
                                           std::uint64_t indexStreamId, const Entries& entries,
                                           const ReadEffect& read, const Progress& progress);

  enum class Outcome {
    kChecked,     // the checks ran; the problems are what they found
    kNoFile,      // the folder holds no cache file
    kNotACache,   // the file does not load as a cache
    kUnreadable,  // the file could not be read now
  };
  struct Report {
    Outcome outcome = Outcome::kNoFile;
    std::vector<std::string> problems;
    std::uint64_t effects = 0;
  };
  // Every check on the folder's file. An exception leaves only for want of
  // memory.
  static Report VerifyFolder(const WStr& folder, const Progress& progress = Progress());
  // The checks of the tables alone (the package's, and the index against
  // the streams), without reading a stream's bytes: what an operation that
  // moves or removes streams needs to know before it starts, in time linear
  // in the tables' size. `effects` counts the index's entries.
  static Report CheckFolderTables(const WStr& folder);
};

}  // namespace Tovrel

#endif
