#include "package/FirstFitIndex.h"

#include <algorithm>
#include <cassert>

namespace Tovrel {

FirstFitIndex::FirstFitIndex() { Clear(); }

void FirstFitIndex::Clear() {
  leaves_ = 1;
  size_ = 0;
  tree_.assign(2, 0);
}

void FirstFitIndex::CheckInvariants() const {
  assert(size_ <= leaves_ && (leaves_ & (leaves_ - 1)) == 0);
  assert(tree_.size() == 2 * leaves_);
}

void FirstFitIndex::Lay(const std::vector<std::uint64_t>& values, std::size_t leaves) {
  leaves_ = leaves;
  size_ = values.size();
  tree_.assign(2 * leaves_, 0);
  std::copy(values.begin(), values.end(), tree_.begin() + static_cast<std::ptrdiff_t>(leaves_));
  for (std::size_t node = leaves_ - 1; node >= 1; --node) {
    tree_[node] = std::max(tree_[2 * node], tree_[2 * node + 1]);
  }
  CheckInvariants();
}

void FirstFitIndex::Assign(const std::vector<std::uint64_t>& values) {
  std::size_t leaves = 1;
  while (leaves < values.size()) leaves *= 2;
  Lay(values, leaves);
}

void FirstFitIndex::Append(std::uint64_t value) {
  CheckInvariants();
  if (size_ == leaves_) {
    const std::vector<std::uint64_t> values(tree_.begin() + static_cast<std::ptrdiff_t>(leaves_), tree_.end());
    Lay(values, 2 * leaves_);
  }
  ++size_;
  Set(size_ - 1, value);
}

void FirstFitIndex::Set(std::size_t slot, std::uint64_t value) {
  assert(slot < size_);
  std::size_t node = leaves_ + slot;
  tree_[node] = value;
  for (node /= 2; node >= 1; node /= 2) tree_[node] = std::max(tree_[2 * node], tree_[2 * node + 1]);
}

std::size_t FirstFitIndex::FindFirst(std::uint64_t wanted) const {
  CheckInvariants();
  if (size_ == 0 || tree_[1] < wanted) return kNone;
  std::size_t node = 1;
  while (node < leaves_) node = tree_[2 * node] >= wanted ? 2 * node : 2 * node + 1;
  const std::size_t slot = node - leaves_;
  return slot < size_ ? slot : kNone;
}

}  // namespace Tovrel
