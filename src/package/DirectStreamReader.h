// DirectStreamReader: reads a whole stream of a package straight from its
// file, at the pages the package's tables name, for readers on several
// threads at once.
//
// A stream read through the package (OpenStream) goes through the page
// cache, which every read changes (its recency order, its pins), so only
// one thread at a time may read a package so. This reader changes nothing:
// it finds the stream's pages in the tables (as OpenStream does, with the
// same checks), then reads them with positional calls on the file, joining
// pages that follow each other in the file into one call. It answers only
// while the file is exactly what the package would give: nothing unsaved,
// no page waiting to be written, no journal (see
// FilePageCache::FileMatchesCache); otherwise, and for a stream whose
// tables are not sound or whose pages the file does not hold, it declines
// and the caller reads the ordinary way.
//
// Stateless. Thread-safety: any number of threads may read one package at
// once, beside its other const calls, while no thread changes it (the
// caller's lock sees to that).
#ifndef TOVREL_PACKAGE_DIRECTSTREAMREADER_H
#define TOVREL_PACKAGE_DIRECTSTREAMREADER_H

#include <cstdint>
#include <vector>

#include "package/PagedFilePackage.h"

namespace Tovrel {

class DirectStreamReader {
 public:
  enum class Result {
    kOk,         // `into` holds the stream's bytes
    kNoStream,   // the package has no such stream
    kTooLarge,   // the stream holds more than the limit
    kDeclined,   // not readable so now: read it through the package
  };

  // Reads all of stream `identifier`, at most `limit` bytes, into `into`
  // (resized to the stream's size on kOk). FileIOException when a file
  // call fails; std::bad_alloc when memory runs out.
  static Result Read(const PagedFilePackage& package, std::uint64_t identifier, std::uint64_t limit,
                     std::vector<std::uint8_t>& into);

  // A run of a stream's bytes that follow each other in the file.
  struct Run {
    std::uint64_t offset;  // in the file
    std::uint64_t size;
  };
  // Where the bytes of stream `identifier` (at most `limit` of them) lie in
  // the file, in the stream's order, pages that follow each other joined
  // into one run; kOk with `runs` filled, or why not, as Read answers. The
  // runs hold for the file as the package's tables describe it.
  static Result Locate(const PagedFilePackage& package, std::uint64_t identifier, std::uint64_t limit,
                       std::vector<Run>& runs);
};

}  // namespace Tovrel

#endif
