// BaseHeadFileSeeker: what the reading and the writing head-chain seekers
// share: the page table of the head chain (which always starts on page 10),
// the position mapping over it and the structural check of one page.
//
// The head chain's first page carries a 32-byte header (page count, total
// size, next page id, end offset), every further page a 16-byte one (next
// page id, end offset); every page but the last is full. The page table
// fills lazily, in increasing index order, through LoadPagesUpTo, which the
// derived classes implement (reading or writing the headers).
//
// Reference counted; the page cache is not owned and must outlive the
// seeker. Thread-safety: none; one thread at a time.
#ifndef TOVREL_PAGEFILE_BASEHEADFILESEEKER_H
#define TOVREL_PAGEFILE_BASEHEADFILESEEKER_H

#include <cstdint>
#include <vector>

#include "pagefile/FilePageCache.h"
#include "pagefile/IPagedFileSeeker.h"
#include "pagefile/ZeroedArray.h"

namespace Tovrel {

class BaseHeadFileSeeker : public IPagedFileSeeker {
 protected:
  ~BaseHeadFileSeeker() override = default;

 public:
  explicit BaseHeadFileSeeker(FilePageCache* cache);

  bool Locate(std::uint64_t& pageIndex, std::uint64_t& offsetInPage, std::int32_t position) override;
  bool Advance(std::uint64_t& pageIndex, std::uint64_t& offsetInPage, const PageCursor& from,
               std::uint32_t delta) override;

  // True when page-table entry i satisfies the structural rules: a real
  // page id, a non-empty range inside the page, and a full payload on every
  // page that is not the last.
  virtual bool ValidatePage(std::uint64_t pageIndex);

  std::uint64_t GetLastPreparedIndex() const { return lastPrepared_; }
  std::uint64_t GetNextId(std::uint64_t pageIndex) const { return nextIds_[pageIndex]; }

 protected:
  // Empties the table and zeroes the public fields.
  void ResetTable();
  // Sizes the three arrays to `count` zeroed entries and points the views.
  void SizeTable(std::uint64_t count);
  // Asserts the invariants below (debug builds).
  void CheckInvariants() const;

  FilePageCache* cache_;  // not owned
  // Highest page index whose table entry is complete; only ever grows
  // between set-ups. Entries above it are zero.
  std::uint64_t lastPrepared_;
  // The three arrays have pageCount entries each once the seeker is set up;
  // the base class's views point at pageIds_ and ranges_.
  ZeroedArray<std::uint64_t> pageIds_;
  ZeroedArray<std::uint64_t> nextIds_;  // next-page id from each page's header
  ZeroedArray<PageRange> ranges_;
};

}  // namespace Tovrel

#endif
