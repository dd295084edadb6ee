// FilePageCache: the package file and a bounded set of its pages in memory.
//
// Owns the open file (the only holder of it) and up to `capacity` cached
// 8192-byte pages, found by a direct index on page id. Callers pin a page
// with GetPage (normally through a PageRef) and work in the cached image.
// When room is needed the least recently used unpinned page is evicted; a
// page is written back to the file only if it was obtained for writing
// (several processes may share one file, and a page that was only read must
// never overwrite another process's newer save). Close writes back the
// written pages and closes the file; DiscardAll drops every page unwritten.
// Pages that the cache itself appended as zeros and has not written since
// are known without reading them.
//
// Owned plainly by its package (not reference counted), created with a path
// and deleted by it. Thread-safety: none; one thread at a time.
#ifndef TOVREL_PAGEFILE_FILEPAGECACHE_H
#define TOVREL_PAGEFILE_FILEPAGECACHE_H

#include <cstdint>
#include <cstdio>
#include <vector>

#include "host/GraphicsHeapOperators.h"
#include "pagefile/PageGeometry.h"

namespace Tovrel {

class FilePageCache : public NorvaneGraphics::GraphicsHeapOperators {
 public:
  // Opens (or creates) the file; exceptions from Open propagate.
  FilePageCache(const wchar_t* path, std::uint64_t capacity);
  virtual ~FilePageCache();
  FilePageCache(const FilePageCache&) = delete;
  FilePageCache& operator=(const FilePageCache&) = delete;

  // Closes any current file, then opens `path` for update ("r+b"), or
  // creates it empty ("w+b") when that fails. Capacity 0 means 1.
  // FileIOException (errno of the second open) when neither open works.
  bool Open(const wchar_t* path, std::uint64_t capacity);

  // Writes back every page obtained for writing, frees every page (pinned
  // ones too: a handle's later Release finds nothing), closes the file and
  // resets the capacity to 1. A failed write-back throws FileIOException
  // with every page still cached and the file open (pages written before
  // the failure are then clean); a failed flush or close throws after the
  // cache is closed.
  void Close();

  // Frees every cached page without writing anything; the file stays open.
  void DiscardAll();

  // Finds or loads the page and pins it; returns its 8192 bytes, or null
  // for an id outside 10..0xFFFFF, a page past the end of the file, or a
  // cache full of pinned pages. A page obtained for writing (forRead false)
  // is marked to be written back, and the file is extended to cover it.
  std::uint8_t* GetPage(std::uint64_t pageId, bool forRead);

  // Grows the file with zeros so that the page lies inside it.
  void EnsureFileCoversPage(std::uint64_t pageId);

  // Drops one pin of the page, if it is cached. Used by PageRef.
  void UnpinPage(std::uint64_t pageId);

  bool IsOpen() const { return file_ != nullptr; }
  std::uint64_t GetFileLength() const { return fileLength_; }
  std::uint64_t GetCapacity() const { return capacity_; }
  std::uint64_t GetCachedPageCount() const { return count_; }
  bool IsCached(std::uint64_t pageId) const { return Find(pageId) != nullptr; }
  // Pin count of a cached page; -1 when the page is not cached.
  int GetPinCount(std::uint64_t pageId) const;
  // Page ids from least to most recently used.
  std::vector<std::uint64_t> GetRecencyOrder() const;

  // Walks the whole structure and asserts every invariant (debug builds).
  void CheckInvariants() const;

 private:
  struct CachedPage {
    std::uint64_t index;     // page id - 10, also file offset / 8192
    std::int32_t pinCount;   // handles holding the page; never evicted while > 0
    std::uint8_t dirty;      // obtained for writing since it was loaded
    alignas(16) std::uint8_t data[kPageSize];  // the page's image
    CachedPage* older;       // neighbour toward the least recent end
    CachedPage* newer;       // neighbour toward the most recent end
  };

  CachedPage* Find(std::uint64_t pageId) const;
  // True when evicting unpinned pages can bring the count down to bound.
  bool CanEvictDownTo(std::uint64_t bound) const;
  // Evicts unpinned pages, least recent first, until count <= bound;
  // written pages are written back first (a failure throws and leaves the
  // page cached). True when the bound was reached.
  bool EvictDownTo(std::uint64_t bound);
  void WriteBack(CachedPage* page);
  void PushMostRecent(CachedPage* page);
  void Unlink(CachedPage* page);
  void FreeAllPages();
  void CloseFile();

  // Invariants (checked by CheckInvariants):
  // - file_ is null exactly when the cache is closed; then no page is
  //   cached (count_ is 0), capacity_ is 1 and fileLength_ is 0.
  // - capacity_ >= 1.
  // - the recency list runs from leastRecent_ (via newer) to mostRecent_
  //   (via older back); it holds count_ pages, each exactly once.
  // - index_[p->index] == p for every page p on the list, and every
  //   non-null entry of index_ is on the list.
  // - count_ <= capacity_ unless pinned pages forced more in (never: a
  //   miss that cannot evict returns null).
  // - a page with dirty set lies inside fileLength_.
  std::FILE* file_;
  std::uint64_t fileLength_;
  std::uint64_t capacity_;
  std::vector<CachedPage*> index_;
  std::uint64_t count_;
  CachedPage* mostRecent_;
  CachedPage* leastRecent_;
  // File offsets at or past this hold zeros that this cache appended and
  // has not written over since (set to the file's length on open; a page
  // written back moves it past that page).
  std::uint64_t zerosFrom_;
};

}  // namespace Tovrel

#endif
