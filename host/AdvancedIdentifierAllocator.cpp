#include "host/AdvancedIdentifierAllocator.h"

#include <cassert>

namespace NorvaneGraphics {

namespace {

constexpr std::uint64_t kBitsPerWord = 64;
constexpr std::uint64_t kInitialWords = 1;

int CountBits(std::uint64_t word) { return __builtin_popcountll(word); }

int LowestZeroBit(std::uint64_t word) { return __builtin_ctzll(~word); }

// Position of the k-th set bit (k from 0) of word, which has more than k.
int SelectBit(std::uint64_t word, std::uint64_t k) {
  for (; k > 0; --k) word &= word - 1;
  return __builtin_ctzll(word);
}

}  // namespace

AdvancedIdentifierAllocator::AdvancedIdentifierAllocator() { Clear(); }

void AdvancedIdentifierAllocator::Clear() {
  words_.assign(kInitialWords, 0);
  tree_.assign(2 * kInitialWords, 0);
}

std::uint64_t AdvancedIdentifierAllocator::Allocate() {
  CheckInvariants();
  const std::uint64_t leaves = words_.size();
  if (tree_[1] == leaves * kBitsPerWord) {
    if (leaves * kBitsPerWord >= kIdentifierLimit) return kNoIdentifier;
    Grow(leaves * 2);
  }
  std::uint64_t node = 1;
  std::uint64_t span = words_.size() * kBitsPerWord;  // identifiers below node
  while (node < words_.size()) {
    span /= 2;
    node = tree_[2 * node] < span ? 2 * node : 2 * node + 1;
  }
  const std::uint64_t word = node - words_.size();
  const std::uint64_t id = word * kBitsPerWord + LowestZeroBit(words_[word]);
  words_[word] |= std::uint64_t{1} << (id % kBitsPerWord);
  AddToPath(word, +1);
  return id;
}

bool AdvancedIdentifierAllocator::MarkAllocated(std::uint64_t id) {
  CheckInvariants();
  if (id >= kIdentifierLimit) return false;
  const std::uint64_t word = id / kBitsPerWord;
  if (word >= words_.size()) {
    std::uint64_t leaves = words_.size();
    while (leaves <= word) leaves *= 2;
    Grow(leaves);
  }
  const std::uint64_t bit = std::uint64_t{1} << (id % kBitsPerWord);
  if ((words_[word] & bit) != 0) return false;
  words_[word] |= bit;
  AddToPath(word, +1);
  return true;
}

bool AdvancedIdentifierAllocator::Free(std::uint64_t id) {
  CheckInvariants();
  if (!IsAllocated(id)) return false;
  const std::uint64_t word = id / kBitsPerWord;
  words_[word] &= ~(std::uint64_t{1} << (id % kBitsPerWord));
  AddToPath(word, -1);
  return true;
}

bool AdvancedIdentifierAllocator::IsAllocated(std::uint64_t id) const {
  const std::uint64_t word = id / kBitsPerWord;
  if (word >= words_.size()) return false;
  return (words_[word] >> (id % kBitsPerWord) & 1) != 0;
}

std::uint64_t AdvancedIdentifierAllocator::GetAllocated(std::uint64_t k) const {
  CheckInvariants();
  if (k >= tree_[1]) return kNoIdentifier;
  std::uint64_t node = 1;
  while (node < words_.size()) {
    const std::uint64_t left = tree_[2 * node];
    if (k < left) {
      node = 2 * node;
    } else {
      k -= left;
      node = 2 * node + 1;
    }
  }
  const std::uint64_t word = node - words_.size();
  return word * kBitsPerWord + SelectBit(words_[word], k);
}

void AdvancedIdentifierAllocator::Grow(std::uint64_t leaves) {
  words_.resize(leaves, 0);
  tree_.assign(2 * leaves, 0);
  for (std::uint64_t w = 0; w < leaves; ++w) tree_[leaves + w] = CountBits(words_[w]);
  for (std::uint64_t n = leaves - 1; n >= 1; --n) tree_[n] = tree_[2 * n] + tree_[2 * n + 1];
}

void AdvancedIdentifierAllocator::AddToPath(std::uint64_t word, int delta) {
  for (std::uint64_t node = words_.size() + word; node >= 1; node /= 2) {
    tree_[node] = static_cast<std::uint32_t>(static_cast<int>(tree_[node]) + delta);
  }
}

void AdvancedIdentifierAllocator::CheckInvariants() const {
  assert(!words_.empty() && (words_.size() & (words_.size() - 1)) == 0);
  assert(tree_.size() == 2 * words_.size());
  assert(tree_[1] <= words_.size() * kBitsPerWord);
}

}  // namespace NorvaneGraphics
