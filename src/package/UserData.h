// UserData: the package's block of user bytes, kept uninterpreted.
//
// Saved as the last section of the head stream: an 8-byte length, then the
// bytes. Owned by value by its package. Thread-safety: none.
#ifndef TOVREL_PACKAGE_USERDATA_H
#define TOVREL_PACKAGE_USERDATA_H

#include <cstdint>
#include <vector>

#include "host/RefPtr.h"
#include "tovrel/IDataStream.h"

namespace Tovrel {

class UserData {
 public:
  void Clear() { bytes_.clear(); }
  // The head chain is positioned in signed 32-bit arithmetic, so no more
  // user data than this can ever be saved.
  static constexpr std::uint64_t kMostBytes = 0x7FFFFFFF;

  // New bytes are zero. False, nothing changed, above kMostBytes or when
  // the memory cannot be had.
  bool SetSize(std::uint64_t size);
  std::uint64_t GetSize() const { return bytes_.size(); }
  // The bytes; null when there are none.
  const std::uint8_t* Data() const { return bytes_.empty() ? nullptr : bytes_.data(); }
  std::uint8_t* Data() { return bytes_.empty() ? nullptr : bytes_.data(); }

  std::uint64_t GetSaveSize() const { return 8 + bytes_.size(); }
  // Replaces the bytes with the section at the stream's position; false
  // when the length or the bytes cannot be read in full (a length beyond
  // the stream's end is refused before any memory is taken).
  bool Read(RefPtr<IDataStream>& stream);
  // FileIOException when the stream takes fewer bytes.
  bool Write(RefPtr<IDataStream>& stream) const;

 private:
  std::vector<std::uint8_t> bytes_;
};

}  // namespace Tovrel

#endif
