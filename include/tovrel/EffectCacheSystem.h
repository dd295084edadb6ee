// EffectCacheSystem: compiled shader effects kept by name from one run of
// the host to the next.
//
// The host asks SearchCachedEffects before compiling an effect and calls
// CacheCompiledEffect after compiling one. Effects (1 byte to 1 MiB) wait
// in memory, then are compressed into the package file
// "norvaneFxoCache.dat" in the cache folder: when 2 MiB are waiting, on
// ForceSaveToFile, and when the object dies. Several host processes may
// share one folder at once; they take turns on the file through a named
// mutex and learn of each other's saves through a shared time stamp.
//
// A cache whose file cannot be opened or created, or whose save failed, is
// unusable: IsEnabled answers false and the data calls answer false. No
// exception leaves the object except allocation failures.
//
// Reference counted: create with new, hold through RefPtr, and let the last
// Release destroy it (which saves first; with background saving on, after
// the worker's saves have ended). Thread-safety: any thread may
// call. Searches run side by side, with each other and with other
// processes' searches: they decompress outside every lock, and a search of
// a file no process wrote since this object last held its named mutex
// takes no named mutex at all. Other calls are serialised inside.
#ifndef TOVREL_EFFECTCACHESYSTEM_H
#define TOVREL_EFFECTCACHESYSTEM_H

#include <cstddef>

#include "host/ARefObject.h"
#include "host/RefPtr.h"
#include "host/Tab.h"
#include "host/WStr.h"
#include "tovrel/export.h"

namespace Tovrel {

class EffectCacheImpl;

class TOVREL_API EffectCacheSystem : public NorvaneGraphics::ARefObject {
 protected:
  ~EffectCacheSystem() override;

 public:
  // Opens (or creates) the cache file in `cacheFolder`.
  explicit EffectCacheSystem(const WStr& cacheFolder);

  // Queues one effect under its name; true if it was accepted.
  bool CacheCompiledEffect(const WStr& name, const unsigned char* data, std::size_t size, bool permanent);
  // Saves the queued effects now; failures make the cache unusable.
  void ForceSaveToFile();
  // The folder exactly as the constructor got it (not the file's path).
  const WStr& GetCacheFilePath() const;
  std::size_t GetNumberOfEffectsInFile() const;
  std::size_t GetNumberOfEffectsInMemory() const;
  // False when the cache is unusable or has been switched off.
  bool IsEnabled() const;
  // An advisory switch for the host; caching and searching ignore it.
  void SetEnabled(bool enabled);
  // Writes a UTF-8 list of the effects stored in the file to `file`.
  void ListCachedEffects(const wchar_t* file);
  // Fills data with the effect's bytes; true if found.
  bool SearchCachedEffects(const WStr& name, Tab<unsigned char>& data);
  // Gives the cache a remote store shared by many machines: "URL", then
  // optionally "|read-only", "|connect-ms=N", "|timeout-ms=N" (250 and
  // 2000 by default), "|ca=PATH" (the CA an https:// server's certificate
  // must chain to), "|token-file=PATH" (a bearer token; else the variable
  // "TOVREL_EFFECT_CACHE_REMOTE_TOKEN"), "|key-file=PATH" (the team key
  // that signs objects), e.g. L"https://cache.studio/fx/|read-only"; see
  // docs/REMOTE.md. A search that misses the file asks the store; a save
  // PUTs what it compressed. Null or empty removes the store. False,
  // nothing changed, for text that does not name a store (a file it names
  // that cannot be read included). The environment variable
  // "TOVREL_EFFECT_CACHE_REMOTE" sets one when the cache is made.
  bool SetRemoteStore(const wchar_t* store);
  // Background saving, off by default. On, the save that 2 MiB of waiting
  // effects start (and ForceSaveToFile's) runs on a worker thread of this
  // object: compression, writes, the journal and the syncs happen there,
  // and CacheCompiledEffect copies the effect and returns. A search finds
  // an effect whether it is waiting, being saved or saved; each count
  // counts it once, where it is. ForceSaveToFile and the last Release wait
  // for every save to end, with the same results as without; a failed
  // save makes the cache unusable. Memory is bounded: while the effects
  // waiting and those being saved pass 64 MiB, CacheCompiledEffect waits
  // for the save under way. Turning it off waits for that save; effects
  // still waiting then stay in memory until the next save. The environment
  // variable "TOVREL_EFFECT_CACHE_BACKGROUND_SAVING" ("1" on, "0" off) sets
  // it when the cache is made.
  void SetBackgroundSaving(bool on);

 private:
  EffectCacheImpl* impl_;  // owned; never null
};

}  // namespace Tovrel

#endif
