#include "support/MemoryDataStream.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <stdexcept>

namespace Tovrel {
namespace Testing {

namespace {
std::atomic<int> liveStreams{0};
}

MemoryDataStream::MemoryDataStream(std::uint64_t size) : bytes_(size, 0) { ++liveStreams; }
MemoryDataStream::MemoryDataStream(std::vector<std::uint8_t> bytes) : bytes_(std::move(bytes)) {
  ++liveStreams;
}
MemoryDataStream::~MemoryDataStream() { --liveStreams; }

int MemoryDataStream::LiveCount() { return liveStreams.load(); }

bool MemoryDataStream::Seek(std::uint32_t origin, std::int32_t offset) {
  std::uint32_t base = 0;
  if (origin == 1) base = static_cast<std::uint32_t>(position_);
  if (origin == 2) base = static_cast<std::uint32_t>(bytes_.size());
  if (origin > 2) return false;
  const auto target = static_cast<std::int32_t>(base + static_cast<std::uint32_t>(offset));
  if (target < 0 || static_cast<std::uint64_t>(target) > bytes_.size()) return false;
  position_ = static_cast<std::uint64_t>(target);
  return true;
}

std::uint64_t MemoryDataStream::Transferable(std::uint64_t count) {
  if (throws_) throw std::runtime_error("memory stream told to fail");
  const std::uint64_t n = std::min({count, bytes_.size() - position_, budget_});
  budget_ -= n;
  return n;
}

std::uint64_t MemoryDataStream::Read(void* buffer, std::uint64_t count) {
  const std::uint64_t n = Transferable(count);
  if (n > 0) std::memcpy(buffer, bytes_.data() + position_, n);
  position_ += n;
  return n;
}

std::uint64_t MemoryDataStream::Write(const void* buffer, std::uint64_t count) {
  const std::uint64_t n = Transferable(count);
  if (n > 0) std::memcpy(bytes_.data() + position_, buffer, n);
  position_ += n;
  return n;
}

}  // namespace Testing
}  // namespace Tovrel
