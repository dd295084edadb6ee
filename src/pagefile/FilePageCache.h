// FilePageCache: the package file and a bounded set of its pages in memory.
//
// Owns the open file (the only holder of it) and up to `capacity` cached
// 8192-byte pages, found by a direct index on page id. Callers pin a page
// with GetPage (normally through a PageRef) and work in the cached image.
// When room is needed the least recently used unpinned page is evicted; a
// page is written back to the file only if it was obtained for writing
// (several processes may share one file, and a page that was only read must
// never overwrite another process's newer save). Pages that the cache
// itself appended as zeros and has not written since are known without
// reading them.
//
// Saves are all-or-nothing through a RollbackJournal beside the file. The
// state of the file when the cache opened it, or when it last committed, is
// the saved state. Before a page of the saved state is changed for the
// first time, its saved image goes to the journal (pages that the package
// says were free in the saved state, pages past the end of its saved
// allocation table, and pages past the saved length, need none), and the
// journal reaches stable storage before such a page is
// written back (evicted pages that would each need a sync wait outside the
// cache, up to the capacity, and share one). Commit (and Close, which
// commits) writes every changed
// page, syncs the file and deletes the journal: from then on the file is
// the new saved state. Rollback instead drops every cached page and writes
// the saved images back, so that the file is the saved state again. Open
// first rolls back a journal that a dead writer left beside the file.
//
// Owned plainly by its package (not reference counted), created with a path
// and deleted by it. Thread-safety: one thread at a time, but for
// ReadFileAt (see there).
#ifndef TOVREL_PAGEFILE_FILEPAGECACHE_H
#define TOVREL_PAGEFILE_FILEPAGECACHE_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "host/GraphicsHeapOperators.h"
#include "pagefile/PageGeometry.h"
#include "pagefile/RollbackJournal.h"
#include "pagefile/SavedImages.h"
#include "platform/FileHandle.h"

namespace Tovrel {

class FilePageCache : public NorvaneGraphics::GraphicsHeapOperators {
 public:
  // The most pages moved by one file call (256 KiB).
  static constexpr std::size_t kMostPagesPerCall = 32;

  // How a file is opened: for update (and created when missing), or only
  // for reading.
  enum class Access { kUpdate, kReadOnly };

  // Opens (or creates) the file; exceptions from Open propagate.
  FilePageCache(const wchar_t* path, std::uint64_t capacity);
  // Opens the file with the given access (Open or OpenReadOnly).
  FilePageCache(const wchar_t* path, std::uint64_t capacity, Access access);
  virtual ~FilePageCache();
  FilePageCache(const FilePageCache&) = delete;
  FilePageCache& operator=(const FilePageCache&) = delete;

  // Closes any current file, then opens `path` for update ("r+b"), or
  // creates it empty ("w+b") when that fails and no file is there (a file
  // that exists is never emptied), and rolls back a journal left beside
  // it (or sets it aside, when RollbackJournal refuses it as damaged).
  // Capacity 0 means 1. FileIOException (errno of the failed open, or
  // of the rollback; EBUSY while a living writer holds the journal) when it
  // cannot; the file is then not open.
  bool Open(const wchar_t* path, std::uint64_t capacity);
  // Opens `path` for reading only ("rb"), changing nothing on disk: a file
  // that may not be written, or one to look at as it is. A journal left
  // beside it is not rolled back but read: its saved images stand in for
  // the file's pages and its saved length for the file's, so the pages read
  // are those the rollback would give (a journal refused as damaged is
  // not read: the file is taken as it is). Obtaining a page for writing, or
  // growing the file, throws FileIOException(EROFS).
  bool OpenReadOnly(const wchar_t* path, std::uint64_t capacity);
  Access GetAccess() const { return access_; }

  // Commits (see Commit), frees every page (pinned ones too: a handle's
  // later Release finds nothing), closes the file and resets the capacity
  // to 1. A failed write-back or sync throws FileIOException with every
  // page still cached and the file open (pages written before the failure
  // are then clean); a failed close throws after the cache is closed.
  void Close();

  // Writes back every page obtained for writing (the journal synced first
  // where it protects them), syncs the file and deletes the journal. The
  // pages stay cached, clean. FileIOException on failure, with the journal
  // kept: the changes then roll back when the file is next opened.
  void Commit();

  // Frees every cached page without writing anything; the file stays open.
  void DiscardAll();

  // Frees every cached page without writing anything and writes the saved
  // images back: the file is again as the last commit (or open) left it.
  // FileIOException when that fails: the cache is then closed, and the
  // journal it leaves rolls the file back at the next open.
  void Rollback();

  // Tells which pages of the saved state were free (index: page id - 10;
  // pages past the end of `freePages`, the saved allocation table, were
  // free too); their images need not be kept. Cleared by Open and Commit
  // until told again: until then every page of the saved length is kept.
  void SetSavedFreePages(std::vector<bool> freePages);

  // Finds or loads the page and pins it; returns its 8192 bytes, or null
  // for an id outside 10..0xFFFFF, a page past the end of the file, or a
  // cache full of pinned pages. A page obtained for writing (forRead false)
  // is marked to be written back, its saved image is journaled, and the
  // file is extended to cover it (on disk when this returns). A failed file
  // call throws FileIOException and leaves the cache as it was. With
  // `overwrite` (for writing only) the caller promises to write all 8192
  // bytes: a page that is not cached is then not read from the file but
  // handed out zeroed, unless its saved image must go to the journal.
  std::uint8_t* GetPage(std::uint64_t pageId, bool forRead, bool overwrite = false);

  // A reader is about to read pages firstPageId, firstPageId + 1, ... in
  // that order: as many of them as are not cached (up to the first that
  // is), fit in the cache and lie in the file are read in one file call
  // and cached, in that order, so that its GetPage calls find them. An
  // optimisation only: when anything stands in the way, or a file call
  // fails, it reads nothing and GetPage does the work as always.
  void Prefetch(std::uint64_t firstPageId, std::uint64_t pages);

  // Reads pages firstPageId, firstPageId + 1, ... (at most `pages`, up to
  // the first that is cached, waits to be written, lies past the file or
  // has a saved image that a journal overlays) straight from the file into
  // `into`, in one file call, without caching them; the number read.
  // FileIOException when the file call fails.
  std::uint64_t ReadUncached(std::uint64_t firstPageId, std::uint64_t pages, std::uint8_t* into);
  // Reads `size` bytes at `offset` of the file as it is on disk now,
  // whatever the cache holds (for a look at what another process saved).
  // False when the file ends first; FileIOException when it is not open or
  // a call fails.
  bool ReadFileBytes(std::uint64_t offset, std::uint8_t* into, std::uint64_t size);

  // True when the file on disk is what the cache gives for every page: it
  // is open, no page waits to be written and no journal is active or
  // stands in for the file's pages. Then ReadFileAt reads what GetPage
  // would, and may do so on several threads at once.
  bool FileMatchesCache() const;
  // Reads `size` bytes at `offset` of the file straight from disk with
  // positional calls, touching nothing of the cache: any number of threads
  // may call it at once, and beside other const calls, while nothing
  // changes the cache. False when the file ends first; FileIOException
  // when it is not open or a call fails.
  bool ReadFileAt(std::uint64_t offset, std::uint8_t* into, std::uint64_t size) const;

  // Grows the file with zeros so that the page lies inside it.
  void EnsureFileCoversPage(std::uint64_t pageId);

  // Cuts the file to `pages` pages (the pages past them are dropped from
  // the cache unwritten). Part of the save under way: a rollback gives the
  // file its saved length back, and the cut is durable at the next Commit.
  // The saved images of the pages it takes away are journaled first, and
  // with them the saved file's last page, in use or not, so that the
  // journal's records explain its saved length (see RollbackJournal).
  // FileIOException on failure; InvalidParameterException for a length
  // not below the file's, or with a page past it still pinned.
  void CutFile(std::uint64_t pages);

  // Drops one pin of the page, if it is cached. Used by PageRef.
  void UnpinPage(std::uint64_t pageId);

  bool IsOpen() const { return file_ != nullptr; }
  std::uint64_t GetFileLength() const { return fileLength_; }
  std::uint64_t GetSavedLength() const { return savedLength_; }
  std::uint64_t GetCapacity() const { return capacity_; }
  std::uint64_t GetCachedPageCount() const { return count_; }
  bool IsCached(std::uint64_t pageId) const { return Find(pageId) != nullptr; }
  bool IsJournalActive() const { return journal_.IsActive(); }
  // Pin count of a cached page; -1 when the page is not cached.
  int GetPinCount(std::uint64_t pageId) const;
  // Page ids from least to most recently used.
  std::vector<std::uint64_t> GetRecencyOrder() const;

  // Walks the whole structure and asserts every invariant (debug builds).
  void CheckInvariants() const;

  // Process-wide: with journaling off, caches opened afterwards keep no
  // journal and sync nothing (a save is then not crash-safe). Only for
  // benchmarks that measure what the journal costs; the library itself
  // never turns it off.
  static void SetJournaling(bool on);
  static bool IsJournaling();

  // Also keeps in `images` the saved image of every page it journals (see
  // SavedImages), from now until the file next changes after a Commit (a
  // write, a cut, a rollback), or the file closes without one, or the
  // cache ends; seals `images` then. False, keeping nothing, when the file
  // is closed, read only or not journaled.
  bool KeepSavedImages(std::shared_ptr<SavedImages> images);

 private:
  struct CachedPage {
    std::uint64_t index;     // page id - 10, also file offset / 8192
    std::int32_t pinCount;   // handles holding the page; never evicted while > 0
    std::uint8_t dirty;      // obtained for writing since it was loaded or written back
    alignas(16) std::uint8_t data[kPageSize];  // the page's image
    CachedPage* older;       // neighbour toward the least recent end
    CachedPage* newer;       // neighbour toward the most recent end
  };

  void Adopt(FileHandle* file, const wchar_t* path, std::uint64_t length, Access access, std::uint64_t capacity);
  static void ReadJournalImages(const std::wstring& path, std::uint64_t* length,
                                std::map<std::uint64_t, std::vector<std::uint8_t>>* images);
  CachedPage* Find(std::uint64_t pageId) const;
  // True when evicting unpinned pages can bring the count down to bound.
  bool CanEvictDownTo(std::uint64_t bound) const;
  // Evicts unpinned pages, least recent first, until count <= bound;
  // written pages are written back first (a failure throws and leaves the
  // page cached). True when the bound was reached.
  bool EvictDownTo(std::uint64_t bound);
  void WriteBack(CachedPage* page);
  // Writes n written pages that follow each other in the file in one call
  // (the journal synced first if it protects any of them); they are clean
  // afterwards. FileIOException leaves them written and unwritten.
  void WriteRun(CachedPage* const* pages, std::size_t n);
  void WriteRuns(const std::vector<CachedPage*>& pages);
  void WriteBackWithNeighbours(CachedPage* page);
  bool JoinsRun(const CachedPage* page) const;
  // True when the page can be read as it stands in the file: not cached,
  // not waiting to be written, not zeros this cache appended, and not
  // replaced by a journal's image.
  bool ReadableAsFiled(std::uint64_t index) const;
  // True for a written page whose saved image is journaled but not yet on
  // stable storage: its write must wait for the journal's next sync.
  bool WaitsForJournal(const CachedPage& page) const;
  // Syncs the journal and writes every waiting page.
  void FlushDeferred();
  CachedPage* TakeDeferred(std::uint64_t index);
  std::uint8_t* Revive(CachedPage* page);
  // Journals the page's saved image before its first change, if the saved
  // state needs it; the page's data must still be that image.
  void ProtectBeforeChange(const CachedPage& page);
  bool NeedsJournal(std::uint64_t index) const;
  // Journals, before a cut to `pages` pages, the saved images of the pages
  // it takes away and of the saved file's last page, then syncs.
  void JournalCutPages(std::uint64_t pages);
  // Journals the saved image of a page of the file, unless it is already.
  void JournalSavedImage(std::uint64_t index, std::uint8_t* image);
  // The page's bytes in the file; a last page that the file's end cuts
  // short reads as its bytes, then zeros.
  void ReadFiledImage(std::uint64_t index, std::uint8_t* image);
  void BeginJournalIfNeeded();
  void PushMostRecent(CachedPage* page);
  void Unlink(CachedPage* page);
  // Sets a page's dirty mark, keeping dirtyListed_ for a page on the list.
  void SetDirty(CachedPage* page, bool dirty);
  void FreeAllPages();
  void CloseFile();

  // Invariants (checked by CheckInvariants):
  // - file_ is null exactly when the cache is closed; then no page is
  //   cached (count_ is 0), capacity_ is 1, fileLength_ and savedLength_
  //   are 0 and no journal is active.
  // - capacity_ >= 1.
  // - the recency list runs from leastRecent_ (via newer) to mostRecent_
  //   (via older back); it holds count_ pages, each exactly once.
  // - index_[p->index] == p for every page p on the list, and every
  //   non-null entry of index_ is on the list.
  // - count_ <= capacity_ unless pinned pages forced more in (never: a
  //   miss that cannot evict returns null).
  // - a page with dirty set lies inside fileLength_.
  // - a dirty page that NeedsJournal is journaled; the file differs from
  //   the saved state only where the journal holds the saved image, or past
  //   savedLength_, or in a page free in the saved state.
  FileHandle* file_;
  std::wstring path_;
  std::uint64_t fileLength_;
  std::uint64_t capacity_;
  std::vector<CachedPage*> index_;
  std::uint64_t count_;
  // The pages on the recency list with dirty set, so that FileMatchesCache
  // (asked before every direct read) need not walk the list.
  std::uint64_t dirtyListed_ = 0;
  CachedPage* mostRecent_;
  CachedPage* leastRecent_;
  // File offsets at or past this hold zeros that this cache appended and
  // has not written over since (set to the file's length on open; a page
  // written back moves it past that page).
  std::uint64_t zerosFrom_;
  // The file's length in the saved state.
  std::uint64_t savedLength_;
  // Pages free in the saved state (index: page id - 10), when
  // savedFreeKnown_; every page past its end was free too. Unknown: every
  // page of the saved length is kept. Invariant: empty while unknown.
  std::vector<bool> savedFree_;
  bool savedFreeKnown_;
  Access access_;
  // Read only: the saved images of a journal found beside the file, by
  // page index; they stand in for the file's pages.
  std::map<std::uint64_t, std::vector<std::uint8_t>> journalImages_;
  // Evicted written pages whose writes wait for the journal's next sync
  // (see WaitsForJournal), by index; not on the recency list nor counted,
  // at most capacity_ of them. Waiting together, they share one sync of
  // the journal instead of one each. A miss on one takes it back.
  std::map<std::uint64_t, CachedPage*> deferred_;
  RollbackJournal journal_;
  bool journaling_;  // IsJournaling() when the file was opened
  // Given the saved images of the pages journaled until the next Commit or
  // close; null otherwise.
  std::shared_ptr<SavedImages> savedImages_;
  // Set by a Commit while savedImages_ is given: the next change of the
  // file ends it (pages that commit freed may change unjournaled).
  bool savedImagesCommitted_ = false;
  // Seals and lets go of savedImages_.
  void EndSavedImages() noexcept;
  // Called before anything changes the file's bytes or length.
  void BeforeFileChange() noexcept;
  // Pages gathered for one file call of a run; kept to be reused.
  std::vector<std::uint8_t> staging_;
};

}  // namespace Tovrel

#endif
