// IPagedFileSeeker: maps byte positions of one chain of pages onto pages.
//
// A seeker knows a chain's page table (page ids and the payload range of
// every page) and turns a position in the chain's bytes into a page index
// and an offset inside that page. Its four fields are its public state,
// read by the streams that use it; the views point into arrays that the
// derived seeker owns and stay valid until it is set up again or destroyed.
// Positions are 32-bit throughout: a chain above 2 GiB cannot be addressed.
//
// Reference counted (ARefObject), held through RefPtr by the package and by
// each stream over the chain. Thread-safety: none; one thread at a time.
#ifndef TOVREL_PAGEFILE_IPAGEDFILESEEKER_H
#define TOVREL_PAGEFILE_IPAGEDFILESEEKER_H

#include <cstdint>

#include "host/ARefObject.h"
#include "pagefile/PageCursor.h"
#include "pagefile/PageRange.h"

namespace Tovrel {

class IPagedFileSeeker : public NorvaneGraphics::ARefObject {
 protected:
  ~IPagedFileSeeker() override {
    totalSize = 0;
    pageCount = 0;
    pageIds = nullptr;
    pageRanges = nullptr;
  }

 public:
  IPagedFileSeeker() : totalSize(0), pageCount(0), pageIds(nullptr), pageRanges(nullptr) {}

  // Maps `position` to a page index and an offset in that page. False (both
  // outputs 0) for a position before 0 or past the end; the end of the data
  // itself is locatable.
  virtual bool Locate(std::uint64_t& pageIndex, std::uint64_t& offsetInPage, std::int32_t position) = 0;

  // The cursor `from` moved forward by delta bytes (32-bit arithmetic).
  virtual bool Advance(std::uint64_t& pageIndex, std::uint64_t& offsetInPage, const PageCursor& from,
                       std::uint32_t delta) = 0;

  // Makes the page-table entries 0..pageIndex complete.
  virtual void LoadPagesUpTo(std::uint64_t pageIndex) = 0;

  std::uint64_t totalSize;        // payload bytes in the chain
  std::uint64_t pageCount;        // pages in the chain
  const std::uint64_t* pageIds;   // view: page id of each page index
  const PageRange* pageRanges;    // view: payload range of each page index
};

}  // namespace Tovrel

#endif
