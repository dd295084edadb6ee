// SavedHeadTail: the last bytes of a package's head stream as the file
// holds them now, read past the page cache.
//
// The head stream ends with the package's user data, so its last bytes are
// the last bytes of the user data. A process that holds a package open
// reads them to learn whether the file is still the one it loaded without
// loading it again: it follows the head chain's links from page 10,
// reading only each page's header (16 or 32 bytes), then the wanted bytes
// from the last page or two. The chain is checked as it is followed (page
// count, payload ends, links to pages, no page twice, the payload adding
// up to the recorded size); a chain that breaks a rule reads as nothing.
//
// Stateless. Thread-safety: as the page cache given (one thread at a time).
#ifndef TOVREL_PAGEFILE_SAVEDHEADTAIL_H
#define TOVREL_PAGEFILE_SAVEDHEADTAIL_H

#include <cstdint>

#include "pagefile/FilePageCache.h"

namespace Tovrel {

class SavedHeadTail {
 public:
  // Reads the last `size` bytes of the head stream of the file behind
  // `cache` into `out`. False when the chain breaks a rule, the file ends
  // before it, or the stream is shorter than `size`; FileIOException when
  // a file call fails.
  static bool Read(FilePageCache& cache, std::uint8_t* out, std::uint64_t size);

 private:
  // The payload bytes of one page of the chain: [begin, end) of page `page`.
  struct Span {
    std::uint64_t page;
    std::uint64_t begin;
    std::uint64_t end;
  };
  // Follows the chain; the last two pages' payloads (`before` empty for a
  // chain of one page). False when the chain breaks a rule.
  static bool FindLastPages(FilePageCache& cache, std::uint64_t* size, Span* last, Span* before);
};

}  // namespace Tovrel

#endif
