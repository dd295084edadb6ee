#include "streams/StreamTransfer.h"

#include <stdexcept>

namespace Tovrel {

namespace {

// A short transfer, raised and caught inside the helpers only.
class ShortTransfer : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

template <typename Transfer>
bool Exact(RefPtr<IDataStream>& stream, const void* buffer, std::uint64_t n, const char* message,
           Transfer transfer) {
  if (!stream || buffer == nullptr || n == 0) return false;
  try {
    if (transfer(*stream) != n) throw ShortTransfer(message);
    return true;
  } catch (...) {
    stream.Reset();
    return false;
  }
}

}  // namespace

bool StreamTransfer::ReadExact(RefPtr<IDataStream>& stream, void* buffer, std::uint64_t n) {
  return Exact(stream, buffer, n, kShortRead, [&](IDataStream& s) { return s.Read(buffer, n); });
}

bool StreamTransfer::WriteExact(RefPtr<IDataStream>& stream, const void* buffer, std::uint64_t n) {
  return Exact(stream, buffer, n, kShortWrite, [&](IDataStream& s) { return s.Write(buffer, n); });
}

}  // namespace Tovrel
