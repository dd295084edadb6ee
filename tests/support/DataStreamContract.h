// DataStreamContract: the behaviour every IDataStream owes its users, as a
// value-parameterised test suite. An implementation's test file provides a
// factory (a stream of a given size, its bytes zero) and instantiates:
//
//   INSTANTIATE_TEST_SUITE_P(Mine, DataStreamContract,
//                            ::testing::Values(DataStreamFactory{"Mine", &MakeMine}));
#ifndef TOVREL_TESTS_DATASTREAMCONTRACT_H
#define TOVREL_TESTS_DATASTREAMCONTRACT_H

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "host/RefPtr.h"
#include "tovrel/IDataStream.h"

namespace Tovrel {
namespace Testing {

struct DataStreamFactory {
  std::string name;
  RefPtr<IDataStream> (*make)(std::uint64_t size);
};

inline std::ostream& operator<<(std::ostream& out, const DataStreamFactory& f) { return out << f.name; }

class DataStreamContract : public ::testing::TestWithParam<DataStreamFactory> {
 protected:
  RefPtr<IDataStream> Make(std::uint64_t size) { return GetParam().make(size); }
};

}  // namespace Testing
}  // namespace Tovrel

#endif
