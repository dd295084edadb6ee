// StreamEntry: where one stream of a package keeps its whole pages.
//
// A stream of `size` bytes stores size / 8192 whole pages in one chain of
// the allocation table, starting at `firstPage` (0 when it has none), and
// its last size % 8192 bytes (its tail) in a child file. In the file the
// entry is 32 bytes: the four fields in this order, little-endian.
// Plain value; the package's stream table owns the entries.
#ifndef TOVREL_PAGEFILE_STREAMENTRY_H
#define TOVREL_PAGEFILE_STREAMENTRY_H

#include <cstdint>

namespace Tovrel {

struct StreamEntry {
  static constexpr std::uint64_t kBytes = 32;

  std::uint64_t identifier;     // the stream's identifier (all ones: none yet)
  std::uint64_t size;           // bytes of the stream
  std::uint64_t firstPage;      // first whole page, 0 when there is none
  std::uint64_t fullPageCount;  // size >> 13 for every entry the package makes
};

}  // namespace Tovrel

#endif
