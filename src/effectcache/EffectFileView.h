// EffectFileView: how one effect cache object opens its file and keeps its
// view of it (the header block, the index, the change mark) the file's, in
// a room of its own.
//
// It opens the file (creating a missing one, replacing one proven damaged
// or foreign, opening read only one that may not be written), loads the
// view whole or not at all and trims what passes the size limit; before
// any write, it brings the view up to date (the shared stamp's news, a
// dead writer's journal, a change mark this object did not write) and
// reads a stored effect's bytes through the package.
//
// Part of EffectCacheImpl (a friend of it, made and owned by it, living as
// long as it), whose fields it reads and changes. Thread-safety: every
// call is made with the object's lock held exclusively; those that touch
// the file, with the file's lock held too (see EffectCacheImpl).
#ifndef TOVREL_EFFECTCACHE_EFFECTFILEVIEW_H
#define TOVREL_EFFECTCACHE_EFFECTFILEVIEW_H

#include <cstdint>
#include <vector>

#include "effectcache/CacheWriteAccess.h"
#include "effectcache/EffectCacheSalvage.h"
#include "effectcache/EffectPayload.h"
#include "effectcache/EffectRecord.h"
#include "host/Tab.h"

namespace Tovrel {

class EffectCacheImpl;

class EffectFileView {
 public:
  explicit EffectFileView(EffectCacheImpl& cache) : cache_(cache) {}
  EffectFileView(const EffectFileView&) = delete;
  EffectFileView& operator=(const EffectFileView&) = delete;

  // What a try to open the cache file found: the file is loaded, proven
  // damaged or foreign (to be replaced), or could not be read as it is; or
  // it loaded but the trim its size rule asked for could not be written
  // (no space left, a folder that refuses the journal): the file stays as
  // it was, and the cache opens it for reading only.
  enum class OpenOutcome { kOpened, kCorrupt, kUnavailable, kCannotWrite };

  // Opens the file if it is not open and may be tried now; true when open.
  bool EnsureOpen();
  bool InitializeTimeStamp();
  OpenOutcome OpenCacheFile();
  // Replaces the file by a new cache holding the effects `kept` (taken
  // from it; none when null), made in one save.
  bool CreateCacheFile(std::vector<EffectCacheSalvage::Effect>* kept = nullptr);
  // A file proven damaged or foreign: replaced by one holding what can be
  // proven intact in it (see EffectCacheSalvage), the damaged file kept
  // beside it first. False leaves the file as it is (nothing could be
  // read, or the copy could not be kept) or the cache unusable.
  bool ReplaceDamagedFile();
  // Replaces the file by one holding what `found` kept, with the object's
  // lock and the file's mutex held.
  bool ReplaceWith(EffectCacheSalvage::Found& found);
  bool WriteHeader();
  // Takes the header and index of the package just loaded as the view,
  // whole or not at all, then trims as a load does.
  OpenOutcome LoadView();
  bool TrimAfterLoad();
  // Reloads when the shared stamp, a dead writer's journal or an earlier
  // failed reload says so; false when the view is stale.
  bool RefreshIfChanged();
  bool ReloadView();
  // RefreshIfChanged, then proof by the file's change mark; false (and
  // nothing may be written) when the view cannot be made the file's.
  bool MakeViewCurrent();
  bool FileMarkIsKnown();
  bool TrimToLimit(std::uint64_t limit, std::uint64_t* removed);
  std::uint64_t GetSizeLimit() const;
  bool OpenReadOnlyIfNotWritable();
  // After kCannotWrite: the file opened again for reading only, and loaded.
  OpenOutcome OpenWithoutWriting();
  bool OpenReadOnly(CacheWriteAccess::Why why);
  // After a save that could not create the journal: the file opened again
  // for reading only and loaded, the pending effects kept in memory. True
  // when the cache serves the file so; false leaves it unusable.
  bool ServeWithoutJournal();
  // Reads a stored effect's compressed bytes through the package; kTrouble
  // when it failed and a file call failed on the way.
  EffectPayload::Result ReadStoredBytes(const EffectRecord& record, std::vector<std::uint8_t>& compressed);
  // Reads and decompresses a stored effect through the view.
  EffectPayload::Result ReadStored(const EffectRecord& record, Tab<unsigned char>& data);

 private:
  EffectCacheImpl& cache_;
};

}  // namespace Tovrel

#endif
