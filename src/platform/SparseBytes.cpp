#include "platform/SparseBytes.h"

#include <algorithm>
#include <cstring>

namespace Tovrel {

SparseBytes::SparseBytes(const SparseBytes& other) : size_(0) { *this = other; }

SparseBytes& SparseBytes::operator=(const SparseBytes& other) {
  if (this == &other) return *this;
  blocks_.clear();
  for (const auto& block : other.blocks_) {
    std::unique_ptr<std::uint8_t[]> copy(new std::uint8_t[kBlockSize]);
    std::memcpy(copy.get(), block.second.get(), kBlockSize);
    blocks_.emplace(block.first, std::move(copy));
  }
  size_ = other.size_;
  return *this;
}

void SparseBytes::Resize(std::uint64_t size) {
  if (size < size_) {
    blocks_.erase(blocks_.lower_bound((size + kBlockSize - 1) / kBlockSize), blocks_.end());
    const std::uint64_t inBlock = size % kBlockSize;
    const auto last = blocks_.find(size / kBlockSize);
    if (inBlock != 0 && last != blocks_.end()) std::memset(last->second.get() + inBlock, 0, kBlockSize - inBlock);
  }
  size_ = size;
}

void SparseBytes::Write(std::uint64_t offset, const std::uint8_t* bytes, std::size_t count) {
  if (offset + count > size_) size_ = offset + count;
  while (count > 0) {
    const std::uint64_t index = offset / kBlockSize;
    const std::uint64_t inBlock = offset % kBlockSize;
    const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(count, kBlockSize - inBlock));
    std::unique_ptr<std::uint8_t[]>& block = blocks_[index];
    if (!block) {
      block.reset(new std::uint8_t[kBlockSize]);
      std::memset(block.get(), 0, kBlockSize);
    }
    std::memcpy(block.get() + inBlock, bytes, n);
    offset += n;
    bytes += n;
    count -= n;
  }
}

std::size_t SparseBytes::Read(std::uint64_t offset, std::uint8_t* bytes, std::size_t count) const {
  if (offset >= size_) return 0;
  const std::size_t total = static_cast<std::size_t>(std::min<std::uint64_t>(count, size_ - offset));
  std::size_t left = total;
  while (left > 0) {
    const std::uint64_t index = offset / kBlockSize;
    const std::uint64_t inBlock = offset % kBlockSize;
    const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(left, kBlockSize - inBlock));
    const auto block = blocks_.find(index);
    if (block == blocks_.end()) {
      std::memset(bytes, 0, n);
    } else {
      std::memcpy(bytes, block->second.get() + inBlock, n);
    }
    offset += n;
    bytes += n;
    left -= n;
  }
  return total;
}

std::vector<std::uint8_t> SparseBytes::ToVector() const {
  std::vector<std::uint8_t> bytes(static_cast<std::size_t>(size_));
  Read(0, bytes.data(), bytes.size());
  return bytes;
}

}  // namespace Tovrel
