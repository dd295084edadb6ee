// Tab<T>: the host SDK's growable array of plain values.
//
// Owns its elements. Count() is the number of elements; SetCount changes
// it, keeping the leading elements and zero-filling new ones. Addr(i) gives
// the address of element i and throws TabOutOfRangeException for an index
// outside 0..Count()-1 (so also for any index of an empty Tab).
// Thread-safety: none; one thread at a time.
#ifndef HOST_TAB_H
#define HOST_TAB_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

#include "host/TabOutOfRangeException.h"

using INT_PTR = std::intptr_t;

template <typename T>
class Tab {
  static_assert(std::is_trivially_copyable<T>::value, "Tab holds plain values");

 public:
  Tab() = default;

  INT_PTR Count() const { return static_cast<INT_PTR>(items_.size()); }

  // Sets the number of elements; new elements are zero. A negative count
  // empties the array. Returns the new count.
  INT_PTR SetCount(INT_PTR count) {
    items_.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return Count();
  }

  void ZeroCount() { items_.clear(); }

  // Address of element i; TabOutOfRangeException unless 0 <= i < Count().
  T* Addr(const INT_PTR i) {
    CheckIndex(i);
    return &items_[static_cast<std::size_t>(i)];
  }
  const T* Addr(const INT_PTR i) const {
    CheckIndex(i);
    return &items_[static_cast<std::size_t>(i)];
  }

  T& operator[](const INT_PTR i) { return *Addr(i); }
  const T& operator[](const INT_PTR i) const { return *Addr(i); }

  // Appends count elements copied from items; returns the index of the first.
  INT_PTR Append(INT_PTR count, const T* items) {
    const INT_PTR first = Count();
    if (count > 0) {
      items_.resize(static_cast<std::size_t>(first + count));
      std::memcpy(items_.data() + first, items, static_cast<std::size_t>(count) * sizeof(T));
    }
    return first;
  }

 private:
  void CheckIndex(INT_PTR i) const {
    if (i < 0 || i >= Count()) {
      throw NorvaneSDK::Util::TabOutOfRangeException(NorvaneSDK::Util::TabOutOfRangeException::kMessage);
    }
  }

  std::vector<T> items_;
};

#endif
