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
  std::uint64_t GetTableSaveSize() const { return 8 + 8 * nextLinks_.size(); }

  std::uint64_t GetHighestPage() const { return highestPage_; }
  std::uint64_t GetTableLength() const { return nextLinks_.size(); }

 private:
  void CheckPageId(std::uint64_t page) const;
  bool InTable(std::uint64_t page) const { return page - kFirstTableId < nextLinks_.size(); }
  void CheckInvariants() const;

  static constexpr std::uint64_t kFirstTableId = 10;

  // Highest page id handed out or claimed; 10 when empty.
  std::uint64_t highestPage_;
  // Indexed by page id - 10. For a page in use, the page whose link points
  // at it (0 when it heads its chain). Always as long as nextLinks_.
  std::vector<std::uint64_t> previousLinks_;
  // Indexed by page id - 10: the link value of each page of the table.
  std::vector<std::uint64_t> nextLinks_;
  // Page ids free for reuse, oldest first. May hold stale ids (pages
  // claimed after they were queued); AllocatePage skips those.
  std::deque<std::uint64_t> freeQueue_;
};

}  // namespace Tovrel

#endif
