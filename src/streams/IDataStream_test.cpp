// The stream contract applied to the in-memory stream that the library's
// own tests use as a stand-in, so that tests built on it stand on a stream
// that keeps the contract. The package's streams apply it to themselves.
#include "support/DataStreamContract.h"
#include "support/MemoryDataStream.h"

namespace Tovrel {
namespace {

using Testing::DataStreamContract;

RefPtr<IDataStream> MakeMemoryStream(std::uint64_t size) {
  return RefPtr<IDataStream>(new Testing::MemoryDataStream(size));
}

INSTANTIATE_TEST_SUITE_P(MemoryStream, DataStreamContract,
                         ::testing::Values(Testing::DataStreamFactory{"MemoryStream", &MakeMemoryStream}));

}  // namespace
}  // namespace Tovrel
