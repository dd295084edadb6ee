// FileIOException: a C-runtime file call failed or moved fewer bytes than asked.
//
// Thrown by value with no message, so what() gives the standard library's
// default text. Carries the error number in the public field errorCode.
// Value type, immutable once thrown; safe to read from any thread.
#ifndef TOVREL_PAGEFILE_FILEIOEXCEPTION_H
#define TOVREL_PAGEFILE_FILEIOEXCEPTION_H

#include <cstdint>
#include <exception>

namespace Tovrel {

class FileIOException : public std::exception {
 public:
  FileIOException() : errorCode(0) {}
  explicit FileIOException(std::int32_t code) : errorCode(code) {}

  std::int32_t errorCode;  // errno right after the failing call; 0 when no file was open
};

}  // namespace Tovrel

#endif
