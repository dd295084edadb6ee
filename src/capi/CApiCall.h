// CApiCall: what every function of the C interface does at its edge: run
// its body with every exception turned into a status, and check the text
// and buffers a caller hands in.
//
// Stateless; any thread.
#ifndef TOVREL_CAPI_CAPICALL_H
#define TOVREL_CAPI_CAPICALL_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "tovrel/tovrel_c.h"

namespace Tovrel {

class CApiCall {
 public:
  // Runs `body` (returning a tovrel_status); an exception becomes the
  // status that names it, so none reaches the caller.
  template <class Body>
  static tovrel_status Guard(Body&& body) noexcept {
    try {
      return body();
    } catch (...) {
      return CurrentException();
    }
  }
  // The status of the exception being handled.
  static tovrel_status CurrentException() noexcept;

  // A zero-terminated UTF-8 path as a wide path: TOVREL_INVALID_ARGUMENT
  // for null or empty, TOVREL_BAD_NAME for bytes that are not UTF-8.
  static tovrel_status WidePath(const char* path, std::wstring* wide);
  // An effect name (1 to 65,536 bytes of UTF-8): TOVREL_INVALID_ARGUMENT
  // for a null pointer, TOVREL_BAD_NAME for anything else not a name.
  static tovrel_status WideName(const char* name, std::size_t size, std::wstring* wide);
  // A null buffer is allowed only with a zero size.
  static bool BufferOk(const void* buffer, std::uint64_t size) { return buffer != nullptr || size == 0; }
};

}  // namespace Tovrel

#endif
