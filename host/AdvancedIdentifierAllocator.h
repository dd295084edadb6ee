// AdvancedIdentifierAllocator: hands out small unsigned identifiers.
//
// Allocate() gives the lowest free identifier (0 first); MarkAllocated()
// takes a given one and refuses one already in use or beyond kIdentifierLimit;
// Free() gives one back. The allocated identifiers are listed in ascending
// order by GetAllocated(k), the k-th of them, in O(log n).
//
// Storage is a bitmap of 64-identifier words plus a complete binary tree of
// per-range counts over those words; both double when an identifier past the
// current capacity is needed. Memory is proportional to the highest
// identifier ever held, which kIdentifierLimit bounds.
//
// Owned plainly by its user (the package's stream and child-file tables).
// Thread-safety: none; one thread at a time.
#ifndef HOST_ADVANCEDIDENTIFIERALLOCATOR_H
#define HOST_ADVANCEDIDENTIFIERALLOCATOR_H

#include <cstdint>
#include <vector>

namespace NorvaneGraphics {

class AdvancedIdentifierAllocator {
 public:
  static constexpr std::uint64_t kNoIdentifier = ~std::uint64_t{0};
  // Identifiers at or above this are never handed out or marked.
  static constexpr std::uint64_t kIdentifierLimit = std::uint64_t{1} << 28;

  AdvancedIdentifierAllocator();

  // The lowest free identifier, now allocated; kNoIdentifier when every
  // identifier below kIdentifierLimit is in use.
  std::uint64_t Allocate();

  // Marks id as allocated. False (nothing changed) when it already is, or
  // when id >= kIdentifierLimit.
  bool MarkAllocated(std::uint64_t id);

  // Frees id. False (nothing changed) when it was not allocated.
  bool Free(std::uint64_t id);

  bool IsAllocated(std::uint64_t id) const;

  // Number of identifiers allocated.
  std::uint64_t Count() const { return tree_[1]; }

  // The k-th allocated identifier in ascending order (k from 0); kNoIdentifier
  // when k >= Count().
  std::uint64_t GetAllocated(std::uint64_t k) const;

  // Frees every identifier and returns to the initial capacity.
  void Clear();

 private:
  void Grow(std::uint64_t minimumWords);
  void AddToPath(std::uint64_t word, int delta);
  void CheckInvariants() const;

  // words_.size() is a power of two (the leaf count of the tree).
  // tree_ has 2 * words_.size() entries; tree_[1] is the root, node n has
  // children 2n and 2n + 1, and the leaf of word w is tree_[words_.size() + w].
  // Every node holds the number of set bits in the words below it.
  std::vector<std::uint64_t> words_;
  std::vector<std::uint32_t> tree_;
};

}  // namespace NorvaneGraphics

#endif
