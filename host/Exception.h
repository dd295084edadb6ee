// NorvaneSDK::Util::Exception: root of the host SDK's own exceptions.
//
// Carries an optional message; what() (and GetMessageText()) give the
// message, or the class name passed by the derived class when there is none.
// Copied by value; immutable after construction, so any thread may read it.
#ifndef HOST_EXCEPTION_H
#define HOST_EXCEPTION_H

#include <exception>
#include <string>

namespace NorvaneSDK {
namespace Util {

class Exception : public std::exception {
 public:
  Exception() : className_("NorvaneSDK::Util::Exception") {}
  explicit Exception(std::string message)
      : message_(std::move(message)), className_("NorvaneSDK::Util::Exception") {}

  const char* what() const noexcept override { return GetMessageText(); }

  // The message, or the class name when the exception was raised without one.
  const char* GetMessageText() const noexcept {
    return message_.empty() ? className_ : message_.c_str();
  }

 protected:
  Exception(std::string message, const char* className)
      : message_(std::move(message)), className_(className) {}

 private:
  std::string message_;
  const char* className_;  // static string naming the most derived class
};

}  // namespace Util
}  // namespace NorvaneSDK

#endif
