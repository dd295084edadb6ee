// SparseBytes: the bytes of one in-memory file, kept in 8 KiB blocks of
// which only those ever written take memory; the rest read as zeros.
//
// A file that grows by gigabytes at once (a long extension past its end)
// costs nothing until those bytes are written, as on a disk that keeps
// sparse files. Value type (copies are deep); owned by MemoryFileSystem.
// Thread-safety: none; its owner locks.
#ifndef TOVREL_PLATFORM_SPARSEBYTES_H
#define TOVREL_PLATFORM_SPARSEBYTES_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
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
  // Cuts or grows (with zeros) to `size`.
  void Resize(std::uint64_t size);
  // Writes `count` bytes at `offset`, growing the file as needed.
  void Write(std::uint64_t offset, const std::uint8_t* bytes, std::size_t count);
  // Reads up to `count` bytes at `offset`; returns how many there were.
  std::size_t Read(std::uint64_t offset, std::uint8_t* bytes, std::size_t count) const;
  std::vector<std::uint8_t> ToVector() const;

 private:
  // Invariant: every block lies below size_ (its index * kBlockSize < size_),
  // and bytes of a block past size_ are zero.
  std::uint64_t size_;
  std::map<std::uint64_t, std::unique_ptr<std::uint8_t[]>> blocks_;  // by block index
};

}  // namespace Tovrel

#endif
