// PageRange: the payload's byte range [begin, end) inside one page of a
// chain. Plain value.
#ifndef TOVREL_PAGEFILE_PAGERANGE_H
#define TOVREL_PAGEFILE_PAGERANGE_H

#include <cstdint>

namespace Tovrel {

struct PageRange {
  std::uint64_t begin;
  std::uint64_t end;
};

}  // namespace Tovrel

#endif
