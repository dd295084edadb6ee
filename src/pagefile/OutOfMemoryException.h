// OutOfMemoryException: a fixed resource is exhausted (page ids, a mutex object).
//
// Thrown by value with no message, so what() gives the standard library's
// default text. Value type with no state; safe from any thread.
#ifndef TOVREL_PAGEFILE_OUTOFMEMORYEXCEPTION_H
#define TOVREL_PAGEFILE_OUTOFMEMORYEXCEPTION_H

#include <exception>

namespace Tovrel {

class OutOfMemoryException : public std::exception {};

}  // namespace Tovrel

#endif
