// PagedFileStream: the IDataStream over one chain of pages of a package file.
//
// The seeker maps positions to (page index, offset in page) and gives the
// page table; the stream moves bytes between the caller and the pages,
// which it pins in the package's page cache. The page being read and the
// page being written stay pinned between calls (one pin per page visited)
// and are let go when the cursor moves to another page, on ReleasePages
// and on destruction. The stream never changes the size or the pages of
// its chain: Write stops at the end.
//
// A page that cannot be had (not in the file, a cache full of pinned
// pages, a failed file call) ends a Read or Write early: the short count
// is the only signal, no exception leaves them but std::bad_alloc (no
// memory is not the end of the stream). Seek answers false in the same
// case.
//
// Reference counted; made by the package over its head chain, over whole
// child files, and (as ChildFileStream) for its users. Holds one reference
// on the seeker; the page cache is not owned and must outlive the stream
// or be given up first (DetachFromCache). Thread-safety: none.
#ifndef TOVREL_STREAMS_PAGEDFILESTREAM_H
#define TOVREL_STREAMS_PAGEDFILESTREAM_H

#include <cstdint>

#include "host/RefPtr.h"
#include "pagefile/FilePageCache.h"
#include "pagefile/IPagedFileSeeker.h"
#include "pagefile/PageRef.h"
#include "tovrel/IDataStream.h"

namespace Tovrel {

class PagedFileStream : public IDataStream {
 protected:
  ~PagedFileStream() override;

 public:
  // InvalidParameterException for a null cache or seeker, or a chain in
  // which position 0 cannot be located (an empty chain).
  PagedFileStream(FilePageCache* cache, RefPtr<IPagedFileSeeker>& seeker);

  std::uint64_t GetPosition() override;
  std::uint64_t GetSize() override;
  bool Seek(std::uint32_t origin, std::int32_t offset) override;
  std::uint64_t Read(void* buffer, std::uint64_t count) override;
  std::uint64_t Write(const void* buffer, std::uint64_t count) override;

  // Moves every byte behind [position, position + count) down to position;
  // the last count bytes keep their old contents. Ends positioned at
  // `position`. False when either end cannot be located;
  // FileDataCorruptException when a page cannot be had.
  bool RemoveRange(std::int32_t position, std::uint32_t count);

  // Unpins both held pages, so that the cache may write them back.
  void ReleasePages();

 protected:
  // Unpins both pages and forgets the cache; every later transfer moves
  // nothing. For a stream whose package goes away before it.
  void DetachFromCache();
  // Finds the current position again after the seeker's table changed.
  void Relocate();
  IPagedFileSeeker* Seeker() const { return seeker_.Get(); }

 private:
  // The current position: page index, offset inside that page (between its
  // range's begin and end), and the byte position, always a value of
  // signed 32-bit arithmetic.
  struct StreamCursor {
    std::uint64_t pageIndex;
    std::uint64_t offsetInPage;
    std::int64_t position;
  };

  // The loop of Read (readInto set) and Write (writeFrom set).
  std::uint64_t Transfer(std::uint8_t* readInto, const std::uint8_t* writeFrom, std::uint64_t count);
  // Pins the cursor's page in `held` unless it holds it already, for a
  // transfer of `bytes` more bytes: a write that covers the whole page does
  // not read it first, and a read has the pages it will cross read in one
  // file call when they follow each other in the file.
  bool HoldCurrentPage(PageRef& held, bool forWrite, std::uint64_t bytes);
  std::uint64_t PagesAhead(std::uint64_t bytes) const;
  // Reads the whole pages from the cursor on that follow each other in the
  // file, that the cache does not hold and that `count` bytes cover,
  // straight from the file into `into`, and moves the cursor past them;
  // the bytes read (0 when there are no such pages).
  std::uint64_t ReadWholePages(std::uint8_t* into, std::uint64_t count);
  bool StepToNextPage();
  bool TargetCursor(StreamCursor& next, std::uint32_t origin, std::int32_t offset);
  std::uint64_t BytesLeftInPage(const PageCursor& at) const;
  void MoveBytes(PageCursor& destination, PageCursor& source, std::uint64_t n);
  void CheckInvariants() const;

  FilePageCache* cache_;  // not owned; null once detached
  RefPtr<IPagedFileSeeker> seeker_;
  StreamCursor cursor_;
  PageRef readPage_;   // the current page, pinned for reading, or nothing
  PageRef writePage_;  // the current page, pinned for writing, or nothing
};

}  // namespace Tovrel

#endif
