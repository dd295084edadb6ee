// EffectCacheImpl: everything behind EffectCacheSystem.
//
// Keeps effects in two collections ordered by EffectNameOrder:
// fileEffects_ (an EffectTable), the index of the cache file as this
// process last read or wrote it, and pendingEffects_ (a map), effects
// cached since the last save (uncompressed; a pending copy wins over a
// stored one). The file is a package holding a
// header block in its user data, an index stream and one stream per
// effect (see EffectCacheHeader and EffectRecord). Every read or write of
// the file happens under fileMutex_, named after the file's path, and
// every save renews timeStamp_, so that other processes reload before
// they read or write.
//
// The cache protects shared files against its own failures: reading never
// marks the package modified; a load that trims the file saves at once
// under the mutex; and a failed save abandons the package's unsaved
// changes instead of letting its destructor write them. So the package
// never writes outside the mutex, nor a directory older than the file's.
//
// Nothing is written from a stale view. The shared stamp's news of another
// process's save is kept until a reload succeeds (a failed reload is tried
// again at the next look, and a search meanwhile misses rather than read
// through tables that may be out of date); a load takes the header and the
// index as a whole or not at all. And before any write (a save, a trim,
// a removal, a merge, a compaction), under the mutex, the file's change
// mark (see ChangeMark) must be the one this object last loaded or wrote:
// when it is not, the file is loaded again first, and when that cannot be
// done, nothing is written (the effects stay pending, the call fails, the
// cache stays usable).
//
// Only a file proven damaged or foreign is replaced: when the file cannot
// be read as it is (a failed read, no descriptor, no memory, a living
// writer's journal; and the shared time stamp that could not be had), it
// is left untouched, the cache is unusable for now, and the next call
// (IsEnabled included) tries to open it again, at most once per
// kOpenRetryMilliseconds.
//
// A cache file that may be read but not written (deployed with the host,
// on a read-only share) is opened read only: searches are served from it,
// nothing is ever written to it (no load-time trim, no save, no dropping
// of damaged entries), and new effects stay in the pending map, up to the
// size limit, for the object's life; a save PUTs each of them, once, to a
// remote store that takes them.
//
// Searches run side by side. A search takes lock_ shared: it finds the
// effect in the pending map or the index and reads the stored effect's
// compressed bytes straight from the file (DirectStreamReader), without
// the named mutex, when the file's save counter (see CacheFileLock) proves
// that no process held the file's lock since this object last let it go
// with its view current; the counter is read before and after the bytes,
// and when it moved, is odd, or the view may be stale, the search takes
// lock_ alone and the named mutex, as every change does, and reads through
// the package. Either way the bytes are decompressed, and copied into the
// caller's Tab, after both locks are let go. A search's use of an entry
// goes into the index's marks (EffectTable::MarkUsed), its hits and
// misses into atomic counts; a change folds them in. While the background
// save holds lock_, searches of stored effects do not wait for it: they
// read through a snapshot of the index and of where each effect's bytes
// lie, which the worker offers for the length of its save, and which stays
// right while it writes because the save's page cache keeps the saved
// image of every page it overwrites (see SearchSnapshot).
//
// This class holds the state and its lock and serves the public calls;
// the work lives in rooms of its own that work on these fields as its
// friends: EffectFileView (view_: opening the file, keeping the view the
// file's), EffectSaver (saver_: the save path) and EffectSearch (search_:
// the search path).
//
// Owned by EffectCacheSystem. Thread-safety: every public operation may be
// called from any thread. Changes, and searches that need the named mutex,
// take lock_ exclusively (then the file's lock, always in that order);
// other searches take lock_ shared and never the file's lock.
#ifndef TOVREL_EFFECTCACHE_EFFECTCACHEIMPL_H
#define TOVREL_EFFECTCACHE_EFFECTCACHEIMPL_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "effectcache/CacheFileLock.h"
#include "effectcache/CacheFileNames.h"
#include "effectcache/CacheWriteAccess.h"
#include "effectcache/ChangeMark.h"
#include "effectcache/EffectBatchCompressor.h"
#include "effectcache/EffectCacheHeader.h"
#include "effectcache/EffectCacheProfile.h"
#include "effectcache/EffectCacheSalvage.h"
#include "effectcache/EffectCacheStats.h"
#include "effectcache/EffectNameOrder.h"
#include "effectcache/EffectPayload.h"
#include "effectcache/EffectRecord.h"
#include "effectcache/EffectRemoteStore.h"
#include "effectcache/EffectFileView.h"
#include "effectcache/EffectSaveQueue.h"
#include "effectcache/EffectSaveWorker.h"
#include "effectcache/EffectSaver.h"
#include "effectcache/EffectSearch.h"
#include "effectcache/EffectTable.h"
#include "effectcache/PendingEffect.h"
#include "host/NorvaneHeapOperators.h"
#include "host/RefPtr.h"
#include "host/Tab.h"
#include "host/WStr.h"
#include "package/PagedFilePackage.h"
#include "platform/ReaderWriterLock.h"
#include "tovrel/tovrel.h"

namespace Tovrel {

class EffectCacheImpl : public NorvaneHeapOperators {
 public:
  static constexpr std::uint64_t kEffectSizeLimit = 1048576;
  static constexpr std::uint64_t kEffectNameSizeLimit = 65536;
  static constexpr std::uint64_t kAutoSaveThreshold = 2097152;
  // Names the remote store a cache takes when it is made.
  static constexpr const wchar_t* kRemoteVariable = L"TOVREL_EFFECT_CACHE_REMOTE";
  // Turns background saving on ("1") or off ("0") when a cache is made.
  static constexpr const wchar_t* kBackgroundVariable = L"TOVREL_EFFECT_CACHE_BACKGROUND_SAVING";
  // With background saving on: when the effects waiting and those being
  // saved pass this many bytes, CacheCompiledEffect waits for the save
  // under way.
  static constexpr std::uint64_t kBackgroundBytesBound = 67108864;
  static constexpr std::uint64_t kCacheBytesLimit = 268435456;
  // The zlib level EffectCacheSystem compresses at.
  static constexpr int kHostCompressionLevel = 2;
  static constexpr std::uint64_t kCachePageCount = 64;
  static constexpr std::uint64_t kStreamLimit = 65535;
  static constexpr const wchar_t* kCacheFileName = CacheFileNames::kCacheFileName;
  // How long a cache whose file could not be read waits before it tries again.
  static constexpr std::uint32_t kOpenRetryMilliseconds = 1000;
  // For tests: the wait between tries to open a file that could not be read.
  static void SetOpenRetryInterval(std::uint32_t milliseconds);

  // `cacheBytesLimit` bounds the file's streams together with the free
  // disk space; the library passes kCacheBytesLimit, tests a smaller one.
  EffectCacheImpl(const WStr& cacheFolder, int compressionLevel, std::uint64_t cacheBytesLimit = kCacheBytesLimit);
  ~EffectCacheImpl();
  EffectCacheImpl(const EffectCacheImpl&) = delete;
  EffectCacheImpl& operator=(const EffectCacheImpl&) = delete;

  bool CacheCompiledEffect(const WStr& name, const unsigned char* data, std::size_t size, bool permanent);
  void ForceSaveToFile();
  const WStr& GetCacheFilePath() const { return cacheFolder_; }
  std::size_t GetNumberOfEffectsInFile() const;
  std::size_t GetNumberOfEffectsInMemory() const;
  // Both counts at one moment.
  void CountEffects(std::size_t* inMemory, std::size_t* inFile) const;
  bool IsEnabled() const;
  void SetEnabled(bool enabled);
  void ListCachedEffects(const wchar_t* file);
  bool SearchCachedEffects(const WStr& name, Tab<unsigned char>& data);

  // What a removal of stored effects took out of the file.
  struct Removed {
    std::uint64_t effects = 0;
    std::uint64_t storedBytes = 0;  // their compressed sizes
  };
  // Offered each stored effect in turn, oldest last use first (ties in
  // name order), with what it has chosen so far and the stored bytes of
  // every entry: true to remove it.
  using RemovalChoice =
      std::function<bool(const EffectTable::Entry& entry, const Removed& chosen, std::uint64_t storedBytes)>;
  // Removes the stored effects that `choose` picks, in one crash-safe save
  // under the file mutex, after bringing this object's view of the file up
  // to date (an interrupted save rolled back, other processes' saves read);
  // the save renews the shared time stamp, so running hosts reload before
  // they next search or save. With dryRun nothing is written. `removed`
  // gets what was (or would be) removed. False when the cache is unusable
  // or the save failed (the file is then as the last completed save left
  // it).
  bool RemoveStored(const RemovalChoice& choose, bool dryRun, Removed* removed);
  // An effect copied from another cache: its name, its record there (the
  // stream identifier is not used) and its compressed bytes as stored.
  struct StoredCopy {
    std::string name;
    EffectRecord record;
    Tab<unsigned char> compressed;
  };
  // Stores the copies whose names this cache does not hold, or holds with
  // an older last use, exactly as they are (no recompression), in one save
  // under the file mutex after bringing the view up to date; `stored` gets
  // how many went in and `bytes` their compressed bytes. False when the
  // cache is unusable or the save failed.
  bool StoreCopies(std::vector<StoredCopy>& copies, std::uint64_t* stored, std::uint64_t* bytes);
  // StoreCopies' writing and save, with the object's lock and the file's
  // mutex held and the view the file's.
  bool WriteCopies(std::vector<StoredCopy>& copies, std::uint64_t* stored, std::uint64_t* bytes);
  // Salvages the file on demand: a file that did not load was salvaged
  // when this object opened it; one that did is read as a damaged one
  // would be (see EffectCacheSalvage) and replaced by what is proven
  // intact in it, the former file kept beside it. `summary` says what was
  // kept and dropped. False when the cache is unusable or read only, or
  // the file could not be read or written.
  bool SalvageFile(EffectCacheSalvage::Summary* summary);
  // What the salvage of this object's file found; false when there was none.
  bool LastSalvage(EffectCacheSalvage::Summary* summary) const;
  // Zeroes the file's hit statistics (and this object's counts) in one
  // save under the file mutex; the block's time becomes now.
  bool ZeroStatistics();
  // Compacts the cache file (see PagedFilePackage::Compact) under the file
  // mutex, after bringing this view up to date, and renews the shared time
  // stamp so that other processes reload. False when the cache is
  // disabled, the mutex cannot be had or the compaction failed (the file
  // is then as its last save left it).
  bool CompactFile(PagedFilePackage::CompactResult* result);

  // True when the cache file is only read: it could only be opened for
  // reading, or it belongs to another user (see OwnerNote).
  bool IsReadOnly() const;
  // Why the file is served read only (kWritable while it is not).
  CacheWriteAccess::Why ReadOnlyWhy() const;
  // Gives the cache a remote store (see EffectRemoteStore), or none with
  // null. A store named by the environment variable
  // "TOVREL_EFFECT_CACHE_REMOTE" ("URL" or "URL|read-only") is set by the
  // constructor.
  void SetRemoteStore(const EffectRemoteStore::Settings* settings);
  // The same from its text (RemoteStoreSettings::Parse); null or empty
  // removes it; false, nothing changed, for text that names no store.
  bool SetRemoteStore(const wchar_t* text);
  // What the remote store did; zeros without one.
  EffectRemoteStore::Counts GetRemoteCounts() const;
  // The cache file's full path (empty for an empty folder).
  const WStr& GetCacheFileFullPath() const { return cacheFilePath_; }
  // Bytes waiting to be saved (pending, queued and being saved).
  std::uint64_t GetPendingBytes() const;

  // Background saving: with it on, the save that 2 MiB of waiting effects
  // start, and ForceSaveToFile's, run on a worker thread of this object
  // (EffectSaveWorker): CacheCompiledEffect queues the effect
  // (EffectSaveQueue) and returns without the object's lock, and waits
  // only when the effects queued and being saved pass the bound (see
  // kBackgroundBytesBound); ForceSaveToFile and the end of the object wait
  // for every save to end. Off (the default), saves run on the caller's
  // thread. Turning it off waits for the save under way, and the queued
  // effects become pending ones.
  void SetBackgroundSaving(bool on);
  bool IsBackgroundSaving() const { return backgroundSaving_.load(); }
  // For tests and benchmarks: the bound of background saving's memory.
  void SetBackgroundBytesBound(std::uint64_t bytes) { backgroundBound_ = bytes; }
  // CacheCompiledEffect calls that waited for the bound, ever.
  std::uint64_t GetBoundWaits() const { return queue_.BoundWaits(); }
  // Saves run on the worker, ever.
  std::uint64_t GetBackgroundSaves() const { return backgroundSaves_.load(); }

 private:
  friend class EffectSearch;
  friend class EffectFileView;
  friend class EffectSaver;

  // Adds what the remote store did since it was last counted to counts_,
  // and keeps its newest failure for NoteRemoteFailure. With lock_ held.
  void CountRemoteWork();
  // Writes the newest failure not yet noted beside the cache file
  // (RemoteErrorNote), under the file's mutex; advisory, so a failed
  // write is let go.
  void NoteRemoteFailure();
  // Where CacheCompiledEffect put an effect: refused, pending, or to be queued.
  enum class Placed { kRefused, kPending, kQueue };
  Placed CachePending(const std::string& key, const unsigned char* data, std::size_t size, bool permanent,
                      std::uint64_t adds);
  bool QueueEffect(const std::string& key, const unsigned char* data, std::size_t size, bool permanent,
                   std::uint64_t adds);
  // With background saving off: queued effects become pending ones.
  void AdoptQueued();
  // True when CacheCompiledEffect may queue: background saving is on and
  // the file is open for writing.
  void NoteQueueOpen();
  static std::atomic<std::uint32_t>& OpenRetryMilliseconds();
  // Runs `change` under the file mutex on a view brought up to date; false
  // when the cache is disabled, the mutex cannot be had, or the refresh or
  // the change fails (false or an exception: the package is then dropped,
  // the file as its last completed save left it). Out of memory passes.
  bool ChangeUnderFileMutex(const std::function<bool()>& change);
  // Adds the searches' atomic counts and decode times to counts_ and profile_.
  void FoldSearchCounts();
  std::vector<bool> ChooseRemovals(const RemovalChoice& choose, Removed* removed);
  void DiscardPending();
  void ResetState();
  void DropPackage();
  // After a write that failed: DropPackage, and the shared stamp renewed.
  void AbandonWrite();
  void CheckInvariants() const;

  mutable ReaderWriterLock lock_;  // over every field below, but the atomics
  WStr cacheFolder_;                   // as the constructor got it
  WStr folderPath_;                    // with a trailing separator
  WStr cacheFilePath_;                 // folderPath_ + kCacheFileName; empty for an empty folder
  bool enabled_;
  EffectCacheHeader header_;           // copy of the file's header block
  EffectTable fileEffects_;            // the file's index as last read or written
  // The file's change mark as this object last loaded or wrote it; absent
  // for a file that has none (nothing is then proven by it).
  ChangeMark knownMark_;
  // Invariant: while set, nothing is written and the index is not
  // searched; set by the stamp's news, a journal or a failed mark check,
  // cleared only by a load that succeeded.
  bool staleView_ = false;
  // The file could not be read as it is: package_ is null and EnsureOpen
  // tries again (clear once open, and for a cache that can never be used).
  bool retryOpen_ = false;
  bool openAttempted_ = false;
  bool stampReady_ = false;  // timeStamp_ is initialised
  std::uint32_t lastOpenAttempt_ = 0;  // LocalClock ticks
  // Cached since the last save. Invariant: every entry holds 1 to
  // kEffectSizeLimit bytes (an index may name no effect without bytes).
  PendingMap pendingEffects_;
  // Entries whose bytes were found unreadable, with the stream they named;
  // the next save drops them from the index (a save is due while any is).
  std::map<std::string, std::uint64_t, EffectNameOrder> damaged_;
  // Estimate of what pendingEffects_ will add to the file: 44 + 8 + name
  // + 8 + size per CacheCompiledEffect call (a replaced effect counts again).
  std::uint64_t pendingBytes_;
  // The open cache file; null when the cache is unusable, which lasts for
  // the rest of the object's life.
  RefPtr<IDataStreamSet> package_;
  std::unique_ptr<CacheFileLock> fileLock_;  // never null
  MultiProcessTimeStamp timeStamp_;
  int compressionLevel_;  // 0..9
  std::uint64_t cacheBytesLimit_;
  EffectCacheProfile profile_;
  // Searches, caches and trims counted since the last save; each save adds
  // them to the file's statistics block and starts again from zero. A
  // process that never saves (saving with nothing pending writes nothing)
  // leaves no counts.
  EffectCacheStats counts_;
  // Searches' hits and misses, and decode milliseconds, not yet in
  // counts_ and profile_ (searches run side by side, under lock_ shared).
  std::atomic<std::uint64_t> searchHits_{0};
  std::atomic<std::uint64_t> searchMisses_{0};
  std::atomic<std::uint32_t> decodeMilliseconds_{0};
  PagedFilePackageConfig config_;  // filePath points into cacheFilePath_
  std::wstring journalPath_;       // the package file's rollback journal
  // The file could be opened for reading only; then package_ writes
  // nothing, and every change to the file is refused. Set once a file
  // is served read only, for the rest of the object's life; readOnlyWhy_
  // is kWritable exactly while readOnly_ is clear.
  bool readOnly_;
  CacheWriteAccess::Why readOnlyWhy_ = CacheWriteAccess::Why::kWritable;
  // Set when this object replaced a damaged file, with what it found.
  bool salvaged_ = false;
  EffectCacheSalvage::Summary lastSalvage_;
  // The second tier, or null. Requests to it are made without the file
  // mutex, so that other processes never wait on the network.
  // Shared, so that a search holds the store while it asks it without
  // any lock, even when it is replaced meanwhile.
  std::shared_ptr<EffectRemoteStore> remote_;
  // The store's counts when they were last added to counts_.
  EffectRemoteStore::Counts remoteCounted_;
  // The store's newest failure when it failed since its last note; empty
  // message when there is nothing to note.
  RemoteErrorNote unnotedFailure_;
  // Background saving: the effects queued and being saved (with a lock of
  // their own), and the worker that saves them. queueOpen_ mirrors
  // "package_ is set and not read only" for CacheCompiledEffect, which
  // reads it without lock_.
  std::atomic<bool> backgroundSaving_{false};
  std::atomic<bool> queueOpen_{false};
  std::atomic<std::uint64_t> backgroundBound_{kBackgroundBytesBound};
  std::atomic<std::uint64_t> backgroundSaves_{0};
  EffectSaveQueue queue_;
  // The rooms that work on these fields: the file's opening and view, the
  // save path, the search path. Made last, as they read the rest.
  EffectFileView view_;
  EffectSaver saver_;
  EffectSearch search_;
  // Last: it ends first, so no save runs on a half-ended object.
  EffectSaveWorker worker_;
};

}  // namespace Tovrel

#endif
