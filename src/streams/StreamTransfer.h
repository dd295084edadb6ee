// StreamTransfer: exact-size reads and writes over an IDataStream.
//
// ReadExact and WriteExact move exactly n bytes or fail. A short transfer,
// or any exception the stream raises, is caught inside: the caller's
// stream reference is released and cleared, and the result is false. No
// exception leaves either function. Stateless; thread-safety as the stream.
#ifndef TOVREL_STREAMS_STREAMTRANSFER_H
#define TOVREL_STREAMS_STREAMTRANSFER_H

#include <cstdint>

#include "host/RefPtr.h"
#include "tovrel/IDataStream.h"

namespace Tovrel {

class StreamTransfer {
 public:
  static constexpr const char* kShortRead = "Unable to read specified size!";
  static constexpr const char* kShortWrite = "Unable to write specified size!";

  // False at once for a null stream, a null buffer or n = 0.
  static bool ReadExact(RefPtr<IDataStream>& stream, void* buffer, std::uint64_t n);
  static bool WriteExact(RefPtr<IDataStream>& stream, const void* buffer, std::uint64_t n);
};

}  // namespace Tovrel

#endif
