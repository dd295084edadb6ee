#include "tovrel/IDataStreamSet.h"

namespace Tovrel {

IDataStreamSet::IDataStreamSet() = default;
IDataStreamSet::~IDataStreamSet() = default;

}  // namespace Tovrel
