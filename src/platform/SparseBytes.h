// SparseBytes: the bytes of one in-memory file, kept in 8 KiB blocks of
// which only those ever written take memory; the rest read as zeros.
//
// A file that grows by gigabytes at once (a long extension past its end)
// costs nothing until those bytes are written, as on a disk that keeps
// sparse files. Blocks of files that went away are kept, up to a bound,
// for the next file to take: tests and fuzz targets make and drop
// thousands of small files, and the allocator (under AddressSanitizer,
// fresh memory for every block) would otherwise be most of their cost.
// Value type (copies are deep); owned by MemoryFileSystem.
// Thread-safety: none; its owner locks (the pool of spare blocks has a
// lock of its own).
#ifndef TOVREL_PLATFORM_SPARSEBYTES_H
#define TOVREL_PLATFORM_SPARSEBYTES_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace Tovrel {

class SparseBytes {
 public:
  static constexpr std::uint64_t kBlockSize = 8192;

  SparseBytes() : size_(0) {}
  SparseBytes(const SparseBytes& other);
  SparseBytes& operator=(const SparseBytes& other);
  SparseBytes(SparseBytes&&) = default;
  SparseBytes& operator=(SparseBytes&&) = default;

  std::uint64_t Size() const { return size_; }
  // Bytes of memory the written blocks take.
  std::uint64_t BlockBytes() const { return blocks_.size() * kBlockSize; }
  // Spare blocks kept for reuse at most (8 MiB).
  static constexpr std::size_t kMostSpareBlocks = 1024;
  // Cuts or grows (with zeros) to `size`.
  void Resize(std::uint64_t size);
  // Writes `count` bytes at `offset`, growing the file as needed.
  void Write(std::uint64_t offset, const std::uint8_t* bytes, std::size_t count);
  // Reads up to `count` bytes at `offset`; returns how many there were.
  std::size_t Read(std::uint64_t offset, std::uint8_t* bytes, std::size_t count) const;
  std::vector<std::uint8_t> ToVector() const;
  // True when the file is exactly these `count` bytes (compared in place).
  bool Equals(const std::uint8_t* bytes, std::size_t count) const;

 private:
  // Gives a block back to the pool of spare blocks.
  struct BlockReturn {
    void operator()(std::uint8_t* block) const;
  };
  using Block = std::unique_ptr<std::uint8_t[], BlockReturn>;
  using Blocks = std::vector<std::pair<std::uint64_t, Block>>;

  // A zero-filled block, from the pool when it has one.
  static Block NewBlock();
  // The block with that index, or null.
  const std::uint8_t* Find(std::uint64_t index) const;
  // The block with that index, made (zero-filled) when missing.
  std::uint8_t* Get(std::uint64_t index);

  // Invariant: blocks_ is sorted by block index, without repeats; every
  // block lies below size_ (its index * kBlockSize < size_), and bytes of
  // a block past size_ are zero.
  std::uint64_t size_;
  Blocks blocks_;  // (block index, its bytes)
};

}  // namespace Tovrel

#endif
