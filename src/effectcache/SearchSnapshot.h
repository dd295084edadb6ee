// SearchSnapshot: the cache file's stored effects as the last completed
// save left them, with where each one's bytes lie in the file, so that
// searches can go on reading them while this object's background save
// writes the file and holds the cache's lock.
//
// The worker builds one after a save (Build, under the cache's lock shared,
// when searches ran since the last one) and offers it to the searches at
// its next save (EffectSearch::Activate). It reads through a handle of its
// own, so the package may close and reopen its file meanwhile. Its bytes
// stay right while the file holds the state it was built from: no process
// has written the file since (the file's save counter is the one it was
// built at), or the only writer is this object's own save (Protect), whose
// page cache keeps the saved image of every page it overwrites (see
// SavedImages) until the save has completed. A read that cannot prove
// this declines, and the search takes the cache's lock as before.
//
// Owned by the worker's save path (EffectSaver); searches use it only
// between Activate and Deactivate, under EffectSearch's snapshot lock.
// Thread-safety: Read, Protect and the use marks may run on many threads
// at once; the rest belongs to its owner.
#ifndef TOVREL_EFFECTCACHE_SEARCHSNAPSHOT_H
#define TOVREL_EFFECTCACHE_SEARCHSNAPSHOT_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "effectcache/CacheFileLock.h"
#include "effectcache/EffectRecord.h"
#include "effectcache/EffectTable.h"
#include "package/DirectStreamReader.h"
#include "package/PagedFilePackage.h"
#include "pagefile/SavedImages.h"
#include "platform/FileHandle.h"

namespace Tovrel {

class SearchSnapshot {
 public:
  // The stored effects of `index` whose bytes `package` can locate, read
  // through a new handle on `path`, for the file as the save counter
  // `counter` (even) found it. Null when the package does not match its
  // file, the handle cannot be had, or memory runs out.
  static std::unique_ptr<SearchSnapshot> Build(const PagedFilePackage& package, const EffectTable& index,
                                               const wchar_t* path, std::uint64_t counter);
  ~SearchSnapshot();
  SearchSnapshot(const SearchSnapshot&) = delete;
  SearchSnapshot& operator=(const SearchSnapshot&) = delete;

  // The save counter the snapshot was built at.
  std::uint64_t Counter() const { return counter_; }
  std::size_t Size() const { return entries_.size(); }

  // Where this object's save keeps the saved images of the pages it
  // overwrites (see FilePageCache::KeepSavedImages).
  const std::shared_ptr<SavedImages>& Images() const { return images_; }
  // This object's save, holding the file's mutex and keeping its images in
  // Images(), is about to write the file; the counter is `counterNow`.
  // False, nothing changed, when that is not the snapshot's own: another
  // process wrote since. Needs no lock: readers see it or decline.
  bool Protect(std::uint64_t counterNow);

  // The save the snapshot is offered for stores a newer copy of `name`:
  // Read no longer gives the snapshot's (once the save's effects leave its
  // queue, only the file, read under the cache's lock, has the newer one).
  // Before the snapshot is offered only.
  void Supersede(const std::string& name);

  enum class Result { kOk, kMissing, kDeclined };
  // The stored bytes of `key` as the snapshot's state holds them, with its
  // record, proven by `lock`'s counter; kMissing for a name it does not
  // hold (the search then looks the ordinary way). FileIOException when
  // a file call fails.
  Result Read(const std::string& key, const CacheFileLock& lock, std::vector<std::uint8_t>& compressed,
              EffectRecord* record);

  // The names whose bytes Read gave, each once (superseded ones aside).
  std::vector<std::string> UsedNames() const;

 private:
  struct Entry {
    std::string name;
    EffectRecord record;
    std::vector<DirectStreamReader::Run> runs;
    bool superseded;  // see Supersede
  };
  std::vector<Entry>::iterator Find(const std::string& key);
  SearchSnapshot() = default;
  // True while the file holds the snapshot's state as far as `lock` tells.
  bool Current(const CacheFileLock& lock) const;
  // Puts the kept images of the pages under `run` over the bytes read.
  void Overlay(const DirectStreamReader::Run& run, std::uint8_t* bytes) const;

  // In EffectNameOrder, as the index.
  std::vector<Entry> entries_;
  std::unique_ptr<std::atomic<bool>[]> used_;
  FileHandle* file_ = nullptr;
  std::uint64_t counter_ = 0;
  // Made with the snapshot; filled by the save's page cache.
  std::shared_ptr<SavedImages> images_;
  // The counter one past counter_ is this object's own save's (Protect).
  std::atomic<bool> ownWrite_{false};
};

}  // namespace Tovrel

#endif
