// ChildFileSeeker: the seeker over one stream of a package: its whole pages
// first, then the one or two page pieces that hold its tail in a child file.
//
// AttachStream builds the whole page table at once from the stream's entry
// (whole pages walked through the allocation table's links) and its tail
// location; after that Locate and Advance are arithmetic and LoadPagesUpTo
// does nothing. Page table for n = fullPageCount:
//   0..n-1   the whole pages, range (0, 8192) each;
//   n        the first tail page, (offset, min(offset + size, 8192));
//   n + 1    when the tail reaches the first page's end: the second tail
//            page (0 when the tail ends exactly there), (0, offset + size - 8192).
// Positions below n * 8192 lie at page p >> 13, offset p & 0x1FFF.
//
// Reference counted; held by the stream that uses it. Holds one reference
// on the allocator from AttachStream until the next attach or destruction.
// Thread-safety: none; one thread at a time.
#ifndef TOVREL_PAGEFILE_CHILDFILESEEKER_H
#define TOVREL_PAGEFILE_CHILDFILESEEKER_H

#include <cstdint>
#include <vector>

#include "host/RefPtr.h"
#include "pagefile/IChildFileLookup.h"
#include "pagefile/IPageAllocator.h"
#include "pagefile/IPagedFileSeeker.h"
#include "pagefile/StreamEntry.h"
#include "pagefile/TailLocation.h"

namespace Tovrel {

class ChildFileSeeker : public IPagedFileSeeker {
 protected:
  ~ChildFileSeeker() override;

 public:
  ChildFileSeeker();

  bool Locate(std::uint64_t& pageIndex, std::uint64_t& offsetInPage, std::int32_t position) override;
  bool Advance(std::uint64_t& pageIndex, std::uint64_t& offsetInPage, const PageCursor& from,
               std::uint32_t delta) override;
  // Nothing to do: the table is complete from AttachStream on.
  void LoadPagesUpTo(std::uint64_t pageIndex) override;

  // Builds the page table of the stream. FileDataCorruptException when the
  // entry, the tail and the allocator's chain disagree, when a page id is
  // not a page or appears twice, or for a stream of size 0; the seeker then
  // has no usable table (page count 0) but keeps the allocator reference.
  bool AttachStream(IPageAllocator* allocator, const StreamEntry& entry, const TailLocation& tail);

  // Attaches the same stream again with its tail at a new place (its child
  // file was compacted); throws as AttachStream.
  bool MoveTail(const TailLocation& tail);

  // The stream position of a cursor. An index equal to the page count is
  // the end of the stream; InvalidParameterException past it.
  std::uint64_t PositionOf(std::uint64_t pageIndex, std::uint64_t offsetInPage) const;

  // The tail location of stream `tailId` from the child-file table: all
  // zero when the stream has no tail. FileDataCorruptException when its
  // child file is missing or the tail does not lie in the child file's used
  // bytes, inside one page or running on into the next.
  static bool LocateTail(TailLocation& out, const IChildFileLookup& table, std::uint64_t tailId);

  std::uint64_t GetTailPageCount() const { return tailPageCount_; }
  const StreamEntry& GetEntry() const { return entry_; }
  const TailLocation& GetTail() const { return tail_; }

 private:
  void Reset();
  void BuildWholePages();
  void AppendTail();
  void CheckNoPageTwice() const;
  void CheckInvariants() const;

  RefPtr<IPageAllocator> allocator_;
  // Invariants once attached: pageIds_ and ranges_ have pageCount entries,
  // pageCount = n + tailPageCount_, the views point at the arrays, and
  // totalSize = n * 8192 + tail_.size. Unattached: pageCount 0, views null.
  std::uint64_t tailPageCount_;  // 0, 1 or 2
  StreamEntry entry_;
  TailLocation tail_;
  std::vector<std::uint64_t> pageIds_;
  std::vector<PageRange> ranges_;
};

}  // namespace Tovrel

#endif
