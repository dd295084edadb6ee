// NorvaneSDK::Util::TabOutOfRangeException: raised by Tab::Addr for an
// index outside the array's elements. Value type, immutable, safe to read
// from any thread.
#ifndef HOST_TABOUTOFRANGEEXCEPTION_H
#define HOST_TABOUTOFRANGEEXCEPTION_H

#include <string>

#include "host/OutOfRangeException.h"

namespace NorvaneSDK {
namespace Util {

class TabOutOfRangeException : public OutOfRangeException {
 public:
  static constexpr const char* kMessage =
      "Invalid index passed into a Norvane SDK Tab::Addr(const INT_PTR i)";

  TabOutOfRangeException()
      : OutOfRangeException(std::string(), "NorvaneSDK::Util::TabOutOfRangeException") {}
  explicit TabOutOfRangeException(std::string message)
      : OutOfRangeException(std::move(message), "NorvaneSDK::Util::TabOutOfRangeException") {}
};

}  // namespace Util
}  // namespace NorvaneSDK

#endif
