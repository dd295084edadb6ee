// HeadFileWriteOnlySeeker: lays out and writes a new head chain.
//
// The package allocates the chain's pages, then calls InitializeForWrite,
// which writes the first page's header. The header of every further page
// is written by LoadPagesUpTo, which Locate and Advance call for each page
// before handing it out, so each header is written once, before the stream
// code writes that page's payload. A page that cannot be pinned for
// writing throws FileDataCorruptException; file failures pass through as
// FileIOException.
//
// Reference counted; created by the package when it saves. The page cache
// is not owned. Thread-safety: none; one thread at a time.
#ifndef TOVREL_PAGEFILE_HEADFILEWRITEONLYSEEKER_H
#define TOVREL_PAGEFILE_HEADFILEWRITEONLYSEEKER_H

#include <cstdint>

#include "pagefile/BaseHeadFileSeeker.h"

namespace Tovrel {

class HeadFileWriteOnlySeeker : public BaseHeadFileSeeker {
 protected:
  // Empties the table without writing anything.
  ~HeadFileWriteOnlySeeker() override;

 public:
  explicit HeadFileWriteOnlySeeker(FilePageCache* cache);

  // Lays out a chain of pageCount pages (ids and next ids given, ids[0] must
  // be 10) for totalSize payload bytes and writes the first page's header.
  // False for a size of 0; InvalidParameterException for a layout whose
  // page count does not fit the size.
  bool InitializeForWrite(const std::uint64_t* pageIds, const std::uint64_t* nextIds,
                          std::uint64_t pageCount, std::uint64_t totalSize);

  // Writes the headers of pages (last prepared + 1)..pageIndex.
  // InvalidParameterException for an index at or past the page count.
  void LoadPagesUpTo(std::uint64_t pageIndex) override;

  // End offset of the payload on page index k of a chain of totalSize bytes.
  static std::uint64_t EndOffsetFor(std::uint64_t totalSize, std::uint64_t k);
};

}  // namespace Tovrel

#endif
