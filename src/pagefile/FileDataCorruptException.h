// FileDataCorruptException: data read from a package file breaks a structural rule.
//
// Thrown by value with no message, so what() gives the standard library's
// default text. Value type with no state; safe from any thread.
#ifndef TOVREL_PAGEFILE_FILEDATACORRUPTEXCEPTION_H
#define TOVREL_PAGEFILE_FILEDATACORRUPTEXCEPTION_H

#include <exception>

namespace Tovrel {

class FileDataCorruptException : public std::exception {};

}  // namespace Tovrel

#endif
