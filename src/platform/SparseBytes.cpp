#include "platform/SparseBytes.h"

#include <algorithm>
#include <cstring>
#include <mutex>

namespace Tovrel {

namespace {

// Blocks of files that went away, for the next ones. Never destroyed, so
// that files of static lifetime can still go at exit.
struct SparePool {
  std::mutex lock;
  std::vector<std::uint8_t*> blocks;  // at most kMostSpareBlocks
};

SparePool& Spares() {
  static SparePool* const pool = new SparePool;
  return *pool;
}

// The first of `blocks` (sorted by index) whose index is not below `index`.
template <typename Blocks>
auto LowerBound(Blocks& blocks, std::uint64_t index) -> decltype(blocks.begin()) {
  return std::lower_bound(blocks.begin(), blocks.end(), index,
                          [](const auto& block, std::uint64_t i) { return block.first < i; });
}

// Calls visit(index, inBlock, at, n) for each piece of the `count` bytes
// at `offset` that lies in one block, in order: the block's index, where
// the piece starts in it, its distance from `offset` and its length.
// Stops, false, when visit returns false.
template <typename Visit>
bool ForEachPiece(std::uint64_t offset, std::size_t count, std::uint64_t blockSize, Visit visit) {
  for (std::size_t at = 0; at < count;) {
    const std::uint64_t inBlock = (offset + at) % blockSize;
    const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(count - at, blockSize - inBlock));
    if (!visit((offset + at) / blockSize, static_cast<std::size_t>(inBlock), at, n)) return false;
    at += n;
  }
  return true;
}

}  // namespace

void SparseBytes::BlockReturn::operator()(std::uint8_t* block) const {
  if (block == nullptr) return;
  SparePool& pool = Spares();
  {
    std::lock_guard<std::mutex> hold(pool.lock);
    if (pool.blocks.size() < kMostSpareBlocks) {
      pool.blocks.push_back(block);
      return;
    }
  }
  delete[] block;
}

SparseBytes::Block SparseBytes::NewBlock() {
  std::uint8_t* block = nullptr;
  SparePool& pool = Spares();
  {
    std::lock_guard<std::mutex> hold(pool.lock);
    if (!pool.blocks.empty()) {
      block = pool.blocks.back();
      pool.blocks.pop_back();
    }
  }
  if (block == nullptr) block = new std::uint8_t[kBlockSize];
  std::memset(block, 0, kBlockSize);
  return Block(block);
}

SparseBytes::SparseBytes(const SparseBytes& other) : size_(0) { *this = other; }

SparseBytes& SparseBytes::operator=(const SparseBytes& other) {
  if (this == &other) return *this;
  blocks_.clear();
  blocks_.reserve(other.blocks_.size());
  for (const auto& block : other.blocks_) {
    Block copy = NewBlock();
    std::memcpy(copy.get(), block.second.get(), kBlockSize);
    blocks_.emplace_back(block.first, std::move(copy));
  }
  size_ = other.size_;
  return *this;
}

const std::uint8_t* SparseBytes::Find(std::uint64_t index) const {
  const auto found = LowerBound(blocks_, index);
  return found != blocks_.end() && found->first == index ? found->second.get() : nullptr;
}

std::uint8_t* SparseBytes::Get(std::uint64_t index) {
  const auto found = LowerBound(blocks_, index);
  if (found != blocks_.end() && found->first == index) return found->second.get();
  return blocks_.emplace(found, index, NewBlock())->second.get();
}

void SparseBytes::Resize(std::uint64_t size) {
  if (size < size_) {
    const std::uint64_t firstGone = (size + kBlockSize - 1) / kBlockSize;
    blocks_.erase(LowerBound(blocks_, firstGone), blocks_.end());
    const std::uint64_t inBlock = size % kBlockSize;
    if (inBlock != 0 && !blocks_.empty() && blocks_.back().first == size / kBlockSize) {
      std::memset(blocks_.back().second.get() + inBlock, 0, kBlockSize - inBlock);
    }
  }
  size_ = size;
}

void SparseBytes::Write(std::uint64_t offset, const std::uint8_t* bytes, std::size_t count) {
  if (offset + count > size_) size_ = offset + count;
  ForEachPiece(offset, count, kBlockSize, [&](std::uint64_t index, std::size_t inBlock, std::size_t at, std::size_t n) {
    std::memcpy(Get(index) + inBlock, bytes + at, n);
    return true;
  });
}

std::size_t SparseBytes::Read(std::uint64_t offset, std::uint8_t* bytes, std::size_t count) const {
  if (offset >= size_) return 0;
  const std::size_t total = static_cast<std::size_t>(std::min<std::uint64_t>(count, size_ - offset));
  ForEachPiece(offset, total, kBlockSize, [&](std::uint64_t index, std::size_t inBlock, std::size_t at, std::size_t n) {
    const std::uint8_t* const block = Find(index);
    if (block == nullptr) {
      std::memset(bytes + at, 0, n);
    } else {
      std::memcpy(bytes + at, block + inBlock, n);
    }
    return true;
  });
  return total;
}

std::vector<std::uint8_t> SparseBytes::ToVector() const {
  std::vector<std::uint8_t> bytes(static_cast<std::size_t>(size_));
  Read(0, bytes.data(), bytes.size());
  return bytes;
}

bool SparseBytes::Equals(const std::uint8_t* bytes, std::size_t count) const {
  if (count != size_) return false;
  return ForEachPiece(0, count, kBlockSize,
                      [&](std::uint64_t index, std::size_t inBlock, std::size_t at, std::size_t n) {
                        const std::uint8_t* const block = Find(index);
                        if (block != nullptr) return std::memcmp(block + inBlock, bytes + at, n) == 0;
                        return std::all_of(bytes + at, bytes + at + n, [](std::uint8_t byte) { return byte == 0; });
                      });
}

}  // namespace Tovrel
