// IdentifierTable: records of a package (stream entries, tail records) by
// the stream identifier each one carries in its field `kKey`.
//
// Stream identifiers are handed out lowest first, so the identifiers in use
// are nearly dense: most records live in an array indexed by identifier,
// which loads without a node or an allocation per record and finds a
// record with one index. A loaded file may name identifiers far beyond the
// others (up to the stream limit, which a package may set high); a record
// whose identifier would leave the array mostly empty goes into an ordered
// map instead, so memory stays proportional to the number of records,
// whatever the file says.
//
// Owned by value by the package's tables. Thread-safety: none; one thread
// at a time.
#ifndef TOVREL_PACKAGE_IDENTIFIERTABLE_H
#define TOVREL_PACKAGE_IDENTIFIERTABLE_H

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

namespace Tovrel {

template <class Record, std::uint64_t Record::*kKey>
class IdentifierTable {
 public:
  // The identifier no record may have; it marks an empty slot.
  static constexpr std::uint64_t kAbsent = ~std::uint64_t{0};

  std::size_t Size() const { return count_; }
  bool Empty() const { return count_ == 0; }

  void Clear() {
    dense_.clear();
    sparse_.clear();
    count_ = 0;
  }

  // Room in the array for identifiers below `count` without growing it
  // again (a hint; the caller bounds it by what it can read).
  void Reserve(std::size_t count) { dense_.reserve(count); }

  const Record* Find(std::uint64_t identifier) const {
    if (identifier < dense_.size()) {
      const Record& slot = dense_[static_cast<std::size_t>(identifier)];
      return slot.*kKey == kAbsent ? nullptr : &slot;
    }
    if (sparse_.empty()) return nullptr;
    const auto found = sparse_.find(identifier);
    return found == sparse_.end() ? nullptr : &found->second;
  }

  Record* Find(std::uint64_t identifier) {
    return const_cast<Record*>(static_cast<const IdentifierTable*>(this)->Find(identifier));
  }

  // Adds `record` under its identifier; false when that identifier already
  // has one or is kAbsent.
  bool Insert(const Record& record) {
    CheckInvariants();
    const std::uint64_t id = record.*kKey;
    if (id == kAbsent || Find(id) != nullptr) return false;
    if (id >= dense_.size() && FitsDense(id)) GrowDense(id);
    if (id < dense_.size()) {
      dense_[static_cast<std::size_t>(id)] = record;
    } else {
      sparse_.emplace(id, record);
    }
    ++count_;
    return true;
  }

  // Drops the record of an identifier; false when it has none.
  bool Erase(std::uint64_t identifier) {
    CheckInvariants();
    if (identifier < dense_.size()) {
      Record& slot = dense_[static_cast<std::size_t>(identifier)];
      if (slot.*kKey == kAbsent) return false;
      slot = EmptySlot();
    } else if (sparse_.erase(identifier) == 0) {
      return false;
    }
    --count_;
    return true;
  }

  // Calls `visit(const Record&)` for every record, in ascending identifier
  // order.
  template <class Visit>
  void ForEach(Visit&& visit) const {
    for (const Record& record : dense_) {
      if (record.*kKey != kAbsent) visit(record);
    }
    for (const auto& item : sparse_) visit(item.second);
  }

 private:
  // The array may be this many times larger than the number of records,
  // plus a fixed allowance, so that small packages never use the map.
  static constexpr std::uint64_t kSpreadFactor = 4;
  static constexpr std::uint64_t kDenseAllowance = 4096;

  static Record EmptySlot() {
    Record empty{};
    empty.*kKey = kAbsent;
    return empty;
  }

  bool FitsDense(std::uint64_t identifier) const {
    return identifier < kSpreadFactor * (count_ + 1) + kDenseAllowance;
  }

  void GrowDense(std::uint64_t identifier) {
    if (identifier == dense_.size()) {
      // The next identifier (how a file's records usually come): one slot
      // at the end, and no record of the map can lie below it.
      dense_.push_back(EmptySlot());
      return;
    }
    dense_.resize(static_cast<std::size_t>(identifier + 1), EmptySlot());
    // Records of the map that the array now covers move into it.
    while (!sparse_.empty() && sparse_.begin()->first < dense_.size()) {
      dense_[static_cast<std::size_t>(sparse_.begin()->first)] = sparse_.begin()->second;
      sparse_.erase(sparse_.begin());
    }
  }

  void CheckInvariants() const {
    assert(sparse_.empty() || sparse_.begin()->first >= dense_.size());
    assert(count_ >= sparse_.size());
  }

  // Invariants: slot i of dense_ holds the record of identifier i, or one
  // whose key is kAbsent; every key of sparse_ is at least dense_.size();
  // count_ is the number of records in both.
  std::vector<Record> dense_;
  std::map<std::uint64_t, Record> sparse_;
  std::size_t count_ = 0;
};

}  // namespace Tovrel

#endif
