// MemoryDataStream: an IDataStream over bytes in memory, for tests.
//
// Behaves as the library's streams do (fixed size, 32-bit seeks, short
// counts at the end) and can be told to misbehave: to stop transferring
// after a number of bytes, or to throw from Read/Write.
#ifndef TOVREL_TESTS_MEMORYDATASTREAM_H
#define TOVREL_TESTS_MEMORYDATASTREAM_H

#include <cstdint>
#include <vector>

#include "tovrel/IDataStream.h"

namespace Tovrel {
namespace Testing {

class MemoryDataStream : public IDataStream {
 protected:
  ~MemoryDataStream() override;

 public:
  explicit MemoryDataStream(std::uint64_t size);
  explicit MemoryDataStream(std::vector<std::uint8_t> bytes);

  std::uint64_t GetPosition() override { return position_; }
  std::uint64_t GetSize() override { return bytes_.size(); }
  bool Seek(std::uint32_t origin, std::int32_t offset) override;
  std::uint64_t Read(void* buffer, std::uint64_t count) override;
  std::uint64_t Write(const void* buffer, std::uint64_t count) override;

  // Only `limit` more bytes will be transferred in total.
  void LimitTransfers(std::uint64_t limit) { budget_ = limit; }
  // Read and Write throw std::runtime_error.
  void ThrowOnTransfer() { throws_ = true; }

  const std::vector<std::uint8_t>& Bytes() const { return bytes_; }
  static int LiveCount();

 private:
  std::uint64_t Transferable(std::uint64_t count);

  std::vector<std::uint8_t> bytes_;
  std::uint64_t position_ = 0;
  std::uint64_t budget_ = ~std::uint64_t{0};
  bool throws_ = false;
};

}  // namespace Testing
}  // namespace Tovrel

#endif
