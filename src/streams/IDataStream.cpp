#include "tovrel/IDataStream.h"

namespace Tovrel {

IDataStream::IDataStream() = default;
IDataStream::~IDataStream() = default;

}  // namespace Tovrel
