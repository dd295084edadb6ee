// NorvaneSDK::Util::OutOfRangeException: an index or value outside the range
// an SDK type accepts. Value type, immutable, safe to read from any thread.
#ifndef HOST_OUTOFRANGEEXCEPTION_H
#define HOST_OUTOFRANGEEXCEPTION_H

#include <string>

#include "host/Exception.h"

namespace NorvaneSDK {
namespace Util {

class OutOfRangeException : public Exception {
 public:
  OutOfRangeException() : Exception(std::string(), "NorvaneSDK::Util::OutOfRangeException") {}
  explicit OutOfRangeException(std::string message)
      : Exception(std::move(message), "NorvaneSDK::Util::OutOfRangeException") {}

 protected:
  OutOfRangeException(std::string message, const char* className)
      : Exception(std::move(message), className) {}
};

}  // namespace Util
}  // namespace NorvaneSDK

#endif
