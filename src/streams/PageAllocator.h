// PageAllocator: the package file's allocation table.
//
// Keeps, for every page id from 10 up to the end of the table, a link value
// (see IPageAllocator): in use and last, free, or in use and followed by a
// given page. Pages past the table's end count as free. Freed pages are
// reused first in, first out; new pages are appended at the table's end
// only when no freed page is left. The table is saved to, and loaded from,
// a stream (an 8-byte count, then 8 bytes per entry, little-endian); the
// free queue and the reverse links are never saved but rebuilt on load.
// The allocator never touches the file.
//
// Reference counted; made by the package and kept for its life.
// Thread-safety: none; callers serialise every call.
#ifndef TOVREL_STREAMS_PAGEALLOCATOR_H
#define TOVREL_STREAMS_PAGEALLOCATOR_H

#include <cstdint>
#include <deque>
#include <unordered_map>
#include <vector>

#include "host/RefPtr.h"
#include "pagefile/IPageAllocator.h"
#include "tovrel/IDataStream.h"

namespace Tovrel {

class PageAllocator : public IPageAllocator {
 protected:
  ~PageAllocator() override;

 public:
  PageAllocator();

  // OutOfMemoryException when the new page would pass 0xFFFFF (the table
  // keeps the entry it appended); InvalidParameterException when `previous`
  // is a page id that is not the last of its chain or lies past the table
  // (the new page then stays in use). A previous outside 10..0xFFFFF
  // counts as none.
  std::uint64_t AllocatePage(std::uint64_t previous) override;
  // InvalidParameterException also for a page past the table's end.
  void FreePage(std::uint64_t page) override;
  bool ClaimPage(std::uint64_t page) override;
  bool IsPageAllocated(std::uint64_t page) override;
  std::uint64_t GetNextPage(std::uint64_t page) override;

  // Empties the table and the free queue; highest page back to 10.
  void Reset();
  // Reads a saved table at the stream's position and rebuilds the state.
  // FileDataCorruptException for a short or inconsistent table.
  bool LoadTable(RefPtr<IDataStream>& stream);
  // Writes the table at the stream's position. FileIOException (code 0)
  // when the stream takes fewer bytes than asked.
  bool SaveTable(RefPtr<IDataStream>& stream);
  // Bytes SaveTable writes: 8 + 8 per entry.
  std::uint64_t GetTableSaveSize() const { return 8 + 8 * entries_.size(); }

  // Moves a page in use to the free page `to` (inside the table): `to`
  // takes over its link, the page linking to it (if any) now links to
  // `to`, and `from` becomes free. Returns that page, 0 when `from` heads
  // its chain (whoever names the chain's first page must be told).
  // Nothing moves in the file. InvalidParameterException when `from` is not
  // in use or `to` is not a free page of the table.
  std::uint64_t MovePage(std::uint64_t from, std::uint64_t to);
  // Shortens the table to `length` entries; every entry dropped must be
  // free (InvalidParameterException otherwise, nothing changed). The free
  // pages left are queued lowest id first.
  void CutTable(std::uint64_t length);

  // For each entry of the table (index: page id - 10), whether it is free.
  std::vector<bool> GetFreePages() const;

  std::uint64_t GetHighestPage() const { return highestPage_; }
  std::uint64_t GetTableLength() const { return entries_.size(); }

 private:
  // One entry of the table: the page's link and the page linking to it.
  // Links that are not 0, 1 or a page id (only a loaded table can hold
  // them) are kept in exoticLinks_ and marked kExoticLink here, so that an
  // entry takes 8 bytes.
  struct Entry {
    std::uint32_t next;
    std::uint32_t previous;  // 0 when the page heads its chain or is free
  };
  static constexpr std::uint32_t kExoticLink = 0xFFFFFFFF;
  static constexpr std::uint64_t kFirstTableId = 10;

  void CheckPageId(std::uint64_t page) const;
  bool InTable(std::uint64_t page) const { return page - kFirstTableId < entries_.size(); }
  std::uint64_t LinkAt(std::uint64_t index) const;
  void SetLink(std::uint64_t index, std::uint64_t link);
  void CheckInvariants() const;

  // Highest page id handed out or claimed; 10 when empty.
  std::uint64_t highestPage_;
  // The allocation table, indexed by page id - 10: for each page its link
  // value (the saved form) and, for a page in use, the page whose link
  // points at it (never saved; rebuilt by LoadTable).
  std::vector<Entry> entries_;
  // Links of entries marked kExoticLink, by entry index.
  std::unordered_map<std::uint64_t, std::uint64_t> exoticLinks_;
  // Page ids free for reuse, oldest first. May hold stale ids (pages
  // claimed after they were queued); AllocatePage skips those.
  std::deque<std::uint32_t> freeQueue_;
};

}  // namespace Tovrel

#endif
