// StreamTailRecord: where the tail of one stream sits in its child file.
//
// The tail is the stream's last `size` bytes (1..8191), at byte `offset` of
// child file `childFileIdentifier`; `indexInChild` is its place in that
// child file's list of tails. In the file the record is 40 bytes: the five
// fields in this order, little-endian. Plain value; the package's
// child-file table owns the records.
#ifndef TOVREL_PAGEFILE_STREAMTAILRECORD_H
#define TOVREL_PAGEFILE_STREAMTAILRECORD_H

#include <cstdint>

namespace Tovrel {

struct StreamTailRecord {
  static constexpr std::uint64_t kBytes = 40;

  std::uint64_t streamIdentifier;
  std::uint64_t childFileIdentifier;
  std::uint64_t indexInChild;
  std::uint64_t offset;  // byte offset inside the child file
  std::uint64_t size;
};

}  // namespace Tovrel

#endif
