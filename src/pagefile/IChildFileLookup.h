// IChildFileLookup: the questions the page layer asks of a package's
// child-file table: the tail record of a stream and a child file's record.
//
// The package's ChildFileTable answers them; ChildFileSeeker::LocateTail
// asks them, so that the page layer needs no part of the package. The
// records returned belong to the table and stay valid until it changes.
// Thread-safety: none; one thread at a time.
#ifndef TOVREL_PAGEFILE_ICHILDFILELOOKUP_H
#define TOVREL_PAGEFILE_ICHILDFILELOOKUP_H

#include <cstdint>

#include "pagefile/ChildFileRecord.h"
#include "pagefile/StreamTailRecord.h"

namespace Tovrel {

class IChildFileLookup {
 public:
  // The tail record of the stream, or null when it has none.
  virtual const StreamTailRecord* FindTail(std::uint64_t streamIdentifier) const = 0;
  // The child file's record, or null when there is no such child file.
  virtual const ChildFileRecord* FindChildFile(std::uint64_t childFileIdentifier) const = 0;

 protected:
  ~IChildFileLookup() = default;
};

}  // namespace Tovrel

#endif
