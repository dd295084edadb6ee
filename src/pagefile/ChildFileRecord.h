// ChildFileRecord: one child file of a package, a run of 8 pages (64 KiB)
// into which the tails of several streams are packed from the front.
//
// Bytes 0..65535 - freeBytes of the child file are in use, without gaps;
// byte b lies in page[b / 8192] at b % 8192. The pages are also chained in
// the allocation table in this order. In the file the record is 80 bytes:
// identifier, the eight page ids, freeBytes, little-endian.
// Plain value; the package's child-file table owns the records.
#ifndef TOVREL_PAGEFILE_CHILDFILERECORD_H
#define TOVREL_PAGEFILE_CHILDFILERECORD_H

#include <cstdint>

namespace Tovrel {

constexpr std::uint64_t kChildFilePages = 8;
constexpr std::uint64_t kChildFileSize = 65536;

struct ChildFileRecord {
  static constexpr std::uint64_t kBytes = 80;

  std::uint64_t identifier;
  std::uint64_t page[kChildFilePages];  // page ids in chain order
  std::uint64_t freeBytes;              // unused bytes at the end of the 65536
};

}  // namespace Tovrel

#endif
