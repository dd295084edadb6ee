// SectionIO: exact transfers of the package's table sections through the
// stream over the head chain.
//
// The section readers and writers move counts and records with these: a
// short transfer throws FileIOException (error code 0), so that a table is
// never built from, or saved as, part of its bytes. Records are moved in
// blocks, not one call each. Stateless; thread-safety as the stream.
#ifndef TOVREL_PACKAGE_SECTIONIO_H
#define TOVREL_PACKAGE_SECTIONIO_H

#include <cstdint>
#include <vector>

#include "host/RefPtr.h"
#include "tovrel/IDataStream.h"

namespace Tovrel {

class SectionIO {
 public:
  // Records read per stream call by ReadRecords.
  static constexpr std::uint64_t kBlockBytes = 64 * 1024;

  static void ReadExact(RefPtr<IDataStream>& stream, void* buffer, std::uint64_t n);
  // One 8-byte little-endian number.
  static std::uint64_t ReadCount(RefPtr<IDataStream>& stream);
  static void WriteExact(RefPtr<IDataStream>& stream, const void* buffer, std::uint64_t n);
  // Writes `bytes` and empties it.
  static void Flush(RefPtr<IDataStream>& stream, std::vector<std::uint8_t>& bytes);
  // Appends one 8-byte little-endian number.
  static void Put(std::vector<std::uint8_t>& bytes, std::uint64_t value);
  // Bytes left between the stream's position and its end.
  static std::uint64_t Remaining(RefPtr<IDataStream>& stream);

  // Reads `count` records of `recordBytes` each and hands each one to
  // `take(const std::uint8_t*)`, in order, while it answers true. False when
  // `take` stopped it.
  template <typename Take>
  static bool ReadRecords(RefPtr<IDataStream>& stream, std::uint64_t count, std::uint64_t recordBytes,
                          Take take) {
    const std::uint64_t perBlock = kBlockBytes / recordBytes;
    std::vector<std::uint8_t> block;
    for (std::uint64_t done = 0; done < count;) {
      const std::uint64_t n = count - done < perBlock ? count - done : perBlock;
      block.resize(n * recordBytes);
      ReadExact(stream, block.data(), block.size());
      for (std::uint64_t i = 0; i < n; ++i) {
        if (!take(block.data() + i * recordBytes)) return false;
      }
      done += n;
    }
    return true;
  }
};

}  // namespace Tovrel

#endif
