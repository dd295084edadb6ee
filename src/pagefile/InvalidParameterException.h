// InvalidParameterException: a caller passed an inconsistent or impossible argument.
//
// Thrown by value with no message, so what() gives the standard library's
// default text. Value type with no state; safe from any thread.
#ifndef TOVREL_PAGEFILE_INVALIDPARAMETEREXCEPTION_H
#define TOVREL_PAGEFILE_INVALIDPARAMETEREXCEPTION_H

#include <exception>

namespace Tovrel {

class InvalidParameterException : public std::exception {};

}  // namespace Tovrel

#endif
