#include "streams/StreamTransfer.h"

#include <new>
#include <stdexcept>

#include "pagefile/LittleEndian.h"

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
  } catch (const std::bad_alloc&) {
    stream.Reset();
    throw;  // no memory is no short transfer
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

bool StreamTransfer::ReadByteTab(Tab<unsigned char>& tab, RefPtr<IDataStream>& stream, std::uint64_t limit) {
  if (!stream) return false;
  std::uint8_t length[8];
  if (!ReadExact(stream, length, sizeof length)) return false;
  const std::uint64_t n = LittleEndian::Load64(length);
  if (n > limit || n >= kByteTabLimit) {
    stream.Reset();
    return false;
  }
  tab.SetCount(static_cast<INT_PTR>(n));
  return n == 0 || ReadExact(stream, tab.Addr(0), n);
}

bool StreamTransfer::WriteByteTab(const Tab<unsigned char>& tab, RefPtr<IDataStream>& stream) {
  return WriteBytes(tab.Count() ? tab.Addr(0) : nullptr, static_cast<std::uint64_t>(tab.Count()), stream);
}

bool StreamTransfer::WriteBytes(const void* bytes, std::uint64_t n, RefPtr<IDataStream>& stream) {
  if (!stream) return false;
  std::uint8_t length[8];
  LittleEndian::Store64(length, n);
  if (!WriteExact(stream, length, sizeof length)) return false;
  return n == 0 || WriteExact(stream, bytes, n);
}

}  // namespace Tovrel
