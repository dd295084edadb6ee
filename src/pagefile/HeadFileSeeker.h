// HeadFileSeeker: reads an existing head chain.
//
// OpenForRead reads the chain's first page (page 10) and checks it; later
// pages are read on demand by LoadPagesUpTo, each checked for the chain's
// rules (a real, pinnable page, no cycle, a full payload unless last).
// While the links lead from each page to the next one in the file (as a
// chain is usually laid out), the pages ahead are read with it in one
// call, twice as many as the links in a row so far (at most what one call
// of the page cache reads): a scattered chain reads at most about twice
// its own pages.
// Structural damage throws FileDataCorruptException, leaving the entries
// prepared before the fault; nothing is repaired. Every page pinned here is
// released on every path.
//
// Reference counted; created by the package when it opens a file. The page
// cache is not owned. Thread-safety: none; one thread at a time.
#ifndef TOVREL_PAGEFILE_HEADFILESEEKER_H
#define TOVREL_PAGEFILE_HEADFILESEEKER_H

#include <cstdint>
#include <vector>

#include "pagefile/BaseHeadFileSeeker.h"

namespace Tovrel {

class HeadFileSeeker : public BaseHeadFileSeeker {
 protected:
  ~HeadFileSeeker() override = default;

 public:
  explicit HeadFileSeeker(FilePageCache* cache);

  // Reads and checks the first page; FileDataCorruptException on damage.
  bool OpenForRead();

  // Reads the headers of pages (last prepared + 1)..pageIndex.
  // InvalidParameterException for an index at or past the page count.
  void LoadPagesUpTo(std::uint64_t pageIndex) override;

 private:
  // Reads and checks the header of page index k, whose predecessor is
  // prepared.
  void LoadPage(std::uint64_t k);

  // One bit per page id - 10: set for every id in the prepared entries, so
  // that a link back into the chain is seen without a scan.
  std::vector<std::uint64_t> seen_;
  // How many links in a row, up to the last prepared page, led to the page
  // after their own: how far ahead the chain is read in one call.
  std::uint64_t consecutive_ = 0;
};

}  // namespace Tovrel

#endif
