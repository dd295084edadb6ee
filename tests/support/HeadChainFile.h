// HeadChainFile: writes and reads whole head chains for tests, through the
// library's own seekers and page handles, and patches single header fields
// of a chain in a closed file to build damaged chains.
#ifndef TOVREL_TESTS_HEADCHAINFILE_H
#define TOVREL_TESTS_HEADCHAINFILE_H

#include <cstdint>
#include <string>
#include <vector>

#include "pagefile/FilePageCache.h"

namespace Tovrel {
namespace Testing {

class HeadChainFile {
 public:
  // Page ids for a chain of `size` bytes: 10 first, then `others` in order.
  static std::vector<std::uint64_t> Layout(std::uint64_t size, const std::vector<std::uint64_t>& others);

  // Lays out a head chain over `ids` and writes `payload` into it.
  static void Write(FilePageCache& cache, const std::vector<std::uint64_t>& ids,
                    const std::vector<std::uint8_t>& payload);

  // Opens the chain at page 10 and reads its whole payload.
  static std::vector<std::uint8_t> Read(FilePageCache& cache);

  // Overwrites the 8-byte field at `offset` of page `pageId` in a file.
  static void Patch(const std::wstring& path, std::uint64_t pageId, std::uint64_t offset,
                    std::uint64_t value);

  static std::vector<std::uint8_t> Payload(std::uint64_t size, std::uint32_t seed);
};

}  // namespace Testing
}  // namespace Tovrel

#endif
