// PackageTesting: small helpers for tests of file packages: configurations,
// seeded byte patterns, whole-stream transfers, and package files made or
// changed in one call.
#ifndef TOVREL_TESTS_PACKAGETESTING_H
#define TOVREL_TESTS_PACKAGETESTING_H

#include <cstdint>
#include <string>
#include <vector>

#include "host/RefPtr.h"
#include "tovrel/IDataStream.h"
#include "tovrel/IDataStreamSet.h"
#include "tovrel/PagedFilePackageConfig.h"

namespace Tovrel {
namespace Testing {

class PackageTesting {
 public:
  // A configuration over `path`, which must outlive its use.
  static PagedFilePackageConfig Config(const std::wstring& path, std::uint64_t cachePages = 16,
                                       std::uint64_t streamLimit = 65535);
  // `size` bytes that depend on `seed` and on their position.
  static std::vector<std::uint8_t> Bytes(std::uint64_t size, std::uint32_t seed);
  // Writes `bytes` from position 0; true when every byte was taken.
  static bool WriteAll(const RefPtr<IDataStream>& stream, const std::vector<std::uint8_t>& bytes);
  // Reads the whole stream from position 0.
  static std::vector<std::uint8_t> ReadAll(const RefPtr<IDataStream>& stream);
  // Creates a stream, fills it with Bytes(size, seed); its identifier.
  static std::uint64_t CreateFilled(const RefPtr<IDataStreamSet>& package, std::uint64_t size, std::uint32_t seed);
  // The identifiers of the package's streams, in its order.
  static std::vector<std::uint64_t> Identifiers(const RefPtr<IDataStreamSet>& package);

  // A package file at `path` with one stream per size, stream k filled
  // with Bytes(size, k + 1), and `userData` bytes of user data (byte i
  // being i), saved; the identifiers in creation order. std::runtime_error
  // when it cannot be made.
  static std::vector<std::uint64_t> MakeFile(const std::wstring& path, const std::vector<std::uint64_t>& sizes,
                                             std::uint64_t userData = 0);
  // Removes one stream of the package file at `path` and saves;
  // std::runtime_error when it cannot.
  static void RemoveFromFile(const std::wstring& path, std::uint64_t identifier);
};

}  // namespace Testing
}  // namespace Tovrel

#endif
