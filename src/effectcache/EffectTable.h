// EffectTable: the cache file's index in memory: one entry (UTF-8 name and
// EffectRecord) per stored effect, in one array sorted by EffectNameOrder,
// the order in which the index stream is written.
//
// Loading takes the entries as the index holds them, so a full index costs
// one allocation per name and no per-entry node, and an index out of name
// order costs one sort; lookups are binary searches. Changes that touch many entries (a save's new effects, a
// trim) go in as one batch, in one pass over the array, so that a save
// does not shift the array once per effect.
//
// A search that finds an entry notes its use with MarkUsed, which changes
// nothing but an atomic mark beside the entry, so that any number of
// searches may find and mark entries at once. The marks reach the records'
// lastUsed (FoldUses) before anything reads lastUsed or changes the table:
// every change folds them first.
//
// Owned by EffectCacheImpl; lives as long as it. Thread-safety: the const
// members (MarkUsed among them) may run on many threads at once; any other
// call needs the table to itself (the owner's lock sees to both).
#ifndef TOVREL_EFFECTCACHE_EFFECTTABLE_H
#define TOVREL_EFFECTCACHE_EFFECTTABLE_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "effectcache/CacheTimeStamp.h"
#include "effectcache/EffectNameOrder.h"
#include "effectcache/EffectRecord.h"

namespace Tovrel {

class EffectTable {
 public:
  struct Entry {
    std::string name;
    EffectRecord record;
  };
  // One change of a batch: the name gets `record`, or, when `remove`, its
  // entry (if any) goes.
  struct Change {
    std::string name;
    EffectRecord record;
    bool remove;
  };
  using const_iterator = std::vector<Entry>::const_iterator;

  std::size_t Size() const { return entries_.size(); }
  bool Empty() const { return entries_.empty(); }
  const_iterator begin() const { return entries_.begin(); }
  const_iterator end() const { return entries_.end(); }
  const Entry& At(std::size_t i) const { return entries_[i]; }
  void Clear();
  void Reserve(std::size_t n) { entries_.reserve(n); }
  static constexpr std::size_t kNone = ~std::size_t{0};
  // The place of `name`'s entry, or kNone.
  std::size_t IndexOf(const std::string& name) const;
  // Notes that the entry at `i` was used at `when`; safe beside other
  // const calls, on any number of threads.
  void MarkUsed(std::size_t i, const CacheTimeStamp& when) const;
  // Moves every mark into its record's lastUsed.
  void FoldUses();

  // Adds an entry as read from an index: at the end when its name sorts
  // after the last one (the index's own order), else in its place; a name
  // already present takes the later record.
  void AddLoaded(std::string&& name, const EffectRecord& record);
  // Takes every entry of an index at once, in the order the index holds
  // them: sorted in O(n log n) when they are not in name order already,
  // and of a name that comes more than once, the last one is kept (as
  // AddLoaded would keep it).
  void Load(std::vector<Entry>&& entries);
  void Swap(EffectTable& other);
  // The record of `name`, or null.
  EffectRecord* Find(const std::string& name);
  const EffectRecord* Find(const std::string& name) const;
  // Removes the entry of `name`; false when there is none.
  bool Erase(const std::string& name);
  // Applies changes whose names are sorted by EffectNameOrder and distinct,
  // in one pass.
  void Apply(std::vector<Change>&& changes);
  // Indexes of the entries, least recently used first (ties in name
  // order); only those that are not permanent when `unpinnedOnly`. Folds
  // the marks first.
  std::vector<std::size_t> OldestFirst(bool unpinnedOnly);
  // Removes the entries whose flag is set; `removed` has one flag per entry.
  void EraseMarked(const std::vector<bool>& removed);

 private:
  std::vector<Entry>::iterator LowerBound(const std::string& name);
  // After a change of the entries: one clear mark per entry.
  void ResetMarks();
  void CheckInvariants() const;

  // Invariant: sorted by EffectNameOrder on name, names distinct.
  std::vector<Entry> entries_;
  // One mark per entry (same places), 0 or a packed CacheTimeStamp of a
  // use not yet in the record. Invariant: exactly entries_.size() marks
  // (or none for no entries), and every change of entries_ folds them
  // first and clears them after.
  std::unique_ptr<std::atomic<std::uint64_t>[]> marks_;
  std::size_t markCount_ = 0;
  mutable std::atomic<bool> anyMarked_{false};
};

}  // namespace Tovrel

#endif
