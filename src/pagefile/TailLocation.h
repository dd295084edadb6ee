// TailLocation: where the tail of one stream lies, as pages of the file.
//
// The tail (a stream's last size % 8192 bytes) starts at `offsetInPage` of
// `firstPage` and, when it runs past that page's end, goes on at the start
// of `secondPage` (0 when it stays in one page). All four fields are 0 for
// a stream without a tail. Plain value, made by ChildFileSeeker::LocateTail.
#ifndef TOVREL_PAGEFILE_TAILLOCATION_H
#define TOVREL_PAGEFILE_TAILLOCATION_H

#include <cstdint>

namespace Tovrel {

struct TailLocation {
  std::uint64_t firstPage;
  std::uint64_t secondPage;
  std::uint64_t offsetInPage;  // 0..8191
  std::uint64_t size;          // 0..8191
};

}  // namespace Tovrel

#endif
