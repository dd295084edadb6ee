// StreamTransfer: exact-size reads and writes over an IDataStream.
//
// ReadExact and WriteExact move exactly n bytes or fail; ReadByteTab and
// WriteByteTab move a length-prefixed byte block built on them. A short transfer,
// or any exception the stream raises, is caught inside: the caller's
// stream reference is released and cleared, and the result is false. Only
// std::bad_alloc leaves them (the reference cleared too): no memory is
// not a short stream. Stateless; thread-safety as the stream.
#ifndef TOVREL_STREAMS_STREAMTRANSFER_H
#define TOVREL_STREAMS_STREAMTRANSFER_H

#include <cstdint>

#include "host/RefPtr.h"
#include "host/Tab.h"
#include "tovrel/IDataStream.h"

namespace Tovrel {

class StreamTransfer {
 public:
  static constexpr const char* kShortRead = "Unable to read specified size!";
  static constexpr const char* kShortWrite = "Unable to write specified size!";
  // Byte blocks of this length or more are refused.
  static constexpr std::uint64_t kByteTabLimit = std::uint64_t{1} << 31;

  // False at once for a null stream, a null buffer or n = 0.
  static bool ReadExact(RefPtr<IDataStream>& stream, void* buffer, std::uint64_t n);
  static bool WriteExact(RefPtr<IDataStream>& stream, const void* buffer, std::uint64_t n);

  // A byte block: an 8-byte little-endian length, then that many bytes.
  // ReadByteTab refuses a length above `limit` or at or above 2 GiB, sets
  // the Tab's count to the length and reads the bytes (none for 0).
  // Every failure, a refused length included, drops the stream as above.
  // False for a null stream.
  static bool ReadByteTab(Tab<unsigned char>& tab, RefPtr<IDataStream>& stream, std::uint64_t limit);
  // Writes the Tab's count, then its bytes if there are any.
  static bool WriteByteTab(const Tab<unsigned char>& tab, RefPtr<IDataStream>& stream);
  // The same form as WriteByteTab, from n bytes at `bytes` (null when n is 0).
  static bool WriteBytes(const void* bytes, std::uint64_t n, RefPtr<IDataStream>& stream);
};

}  // namespace Tovrel

#endif
