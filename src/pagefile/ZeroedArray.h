// ZeroedArray: a fixed-length array of trivially copyable values that
// starts all zeros, taken from the system's zeroed memory (calloc), so that
// a long array costs only the pages that are written to.
//
// A head chain's page table is sized by the count its first page claims,
// up to a million entries, and usually filled far less (or not at all, when
// the chain turns out to be broken): zeroing it by hand would touch every
// page of it. Owns its block; not copyable. Thread-safety: none.
#ifndef TOVREL_PAGEFILE_ZEROEDARRAY_H
#define TOVREL_PAGEFILE_ZEROEDARRAY_H

#include <cassert>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <type_traits>

namespace Tovrel {

template <typename T>
class ZeroedArray {
  static_assert(std::is_trivially_copyable<T>::value, "zero bytes must be a valid value");

 public:
  ZeroedArray() : data_(nullptr), size_(0) {}
  ~ZeroedArray() { std::free(data_); }
  ZeroedArray(const ZeroedArray&) = delete;
  ZeroedArray& operator=(const ZeroedArray&) = delete;

  // Replaces the contents with `count` zeroed entries; std::bad_alloc when
  // the memory cannot be had.
  void Zero(std::size_t count) {
    clear();
    if (count == 0) return;
    data_ = static_cast<T*>(std::calloc(count, sizeof(T)));
    if (data_ == nullptr) throw std::bad_alloc();
    size_ = count;
  }
  void clear() {
    std::free(data_);
    data_ = nullptr;
    size_ = 0;
  }
  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  T* data() { return data_; }
  const T* data() const { return data_; }
  T& operator[](std::size_t i) {
    assert(i < size_);
    return data_[i];
  }
  const T& operator[](std::size_t i) const {
    assert(i < size_);
    return data_[i];
  }

 private:
  T* data_;  // null exactly when size_ is 0
  std::size_t size_;
};

}  // namespace Tovrel

#endif
