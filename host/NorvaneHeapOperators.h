// NorvaneHeapOperators: the host's heap operators, as a base class.
//
// A class that derives from it is allocated through these operators, which
// zero-fill the object's memory before its constructor runs; a field that a
// constructor leaves alone therefore starts as 0. The class has no state and
// no virtual operations. Thread-safety: as the global heap (any thread).
#ifndef HOST_NORVANEHEAPOPERATORS_H
#define HOST_NORVANEHEAPOPERATORS_H

#include <cstddef>
#include <cstring>
#include <new>

class NorvaneHeapOperators {
 public:
  static void* operator new(std::size_t size) { return Zeroed(::operator new(size), size); }
  static void* operator new[](std::size_t size) { return Zeroed(::operator new[](size), size); }
  static void* operator new(std::size_t size, const std::nothrow_t& tag) noexcept {
    return Zeroed(::operator new(size, tag), size);
  }
  static void* operator new(std::size_t, void* place) noexcept { return place; }
  static void operator delete(void* block) noexcept { ::operator delete(block); }
  static void operator delete[](void* block) noexcept { ::operator delete[](block); }
  static void operator delete(void* block, const std::nothrow_t& tag) noexcept {
    ::operator delete(block, tag);
  }
  static void operator delete(void*, void*) noexcept {}

 private:
  static void* Zeroed(void* block, std::size_t size) noexcept {
    if (block != nullptr) std::memset(block, 0, size);
    return block;
  }
};

#endif
