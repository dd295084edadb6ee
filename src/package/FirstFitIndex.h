// FirstFitIndex: finds the first of a row of slots whose value is at least
// a wanted amount, in O(log n).
//
// The child-file table keeps one slot per child file, in ascending
// identifier order, holding its free bytes; placing a tail asks for the
// first child file with room (first fit). A complete binary tree holds the
// largest value below each node. Owned by value by the child-file table.
// Thread-safety: none; one thread at a time.
#ifndef TOVREL_PACKAGE_FIRSTFITINDEX_H
#define TOVREL_PACKAGE_FIRSTFITINDEX_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Tovrel {

class FirstFitIndex {
 public:
  static constexpr std::size_t kNone = ~std::size_t{0};

  FirstFitIndex();

  void Clear();
  // Replaces every slot with `values`, in order.
  void Assign(const std::vector<std::uint64_t>& values);
  // Adds a slot at the end.
  void Append(std::uint64_t value);
  void Set(std::size_t slot, std::uint64_t value);
  std::uint64_t Get(std::size_t slot) const { return tree_[leaves_ + slot]; }
  std::size_t Size() const { return size_; }

  // The lowest slot whose value is at least `wanted`, or kNone.
  std::size_t FindFirst(std::uint64_t wanted) const;

 private:
  // Lays `values` out over `leaves` slots (a power of two, at least as many).
  void Lay(const std::vector<std::uint64_t>& values, std::size_t leaves);
  void CheckInvariants() const;

  // leaves_ is a power of two >= size_; tree_ has 2 * leaves_ entries, the
  // root at 1, node k's children at 2k and 2k + 1, slot s at leaves_ + s.
  // Every inner node holds the larger of its children; unused slots hold 0.
  std::size_t leaves_;
  std::size_t size_;
  std::vector<std::uint64_t> tree_;
};

}  // namespace Tovrel

#endif
