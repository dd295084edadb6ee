// PageCursor: a position inside a chain, as a page index (from 0) and an
// offset inside that page. Plain value.
#ifndef TOVREL_PAGEFILE_PAGECURSOR_H
#define TOVREL_PAGEFILE_PAGECURSOR_H

#include <cstdint>

namespace Tovrel {

struct PageCursor {
  std::uint64_t pageIndex;
  std::uint64_t offsetInPage;
};

}  // namespace Tovrel

#endif
