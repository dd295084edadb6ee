// Win32APICallFailedException: a system call for a named kernel object failed.
//
// Thrown by value with no message, so what() gives the standard library's
// default text. Carries the error number in the public field errorCode.
// Value type, immutable once thrown; safe to read from any thread.
#ifndef TOVREL_PAGEFILE_WIN32APICALLFAILEDEXCEPTION_H
#define TOVREL_PAGEFILE_WIN32APICALLFAILEDEXCEPTION_H

#include <cstdint>
#include <exception>

namespace Tovrel {

class Win32APICallFailedException : public std::exception {
 public:
  Win32APICallFailedException() : errorCode(0) {}
  explicit Win32APICallFailedException(std::uint32_t code) : errorCode(code) {}

  std::uint32_t errorCode;  // the system's error number right after the failing call
};

}  // namespace Tovrel

#endif
