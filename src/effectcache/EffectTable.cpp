#include "effectcache/EffectTable.h"

#include <algorithm>
#include <cassert>
#include <iterator>
#include <utility>

namespace Tovrel {

std::vector<EffectTable::Entry>::iterator EffectTable::LowerBound(const std::string& name) {
  return std::lower_bound(entries_.begin(), entries_.end(), name,
                          [](const Entry& entry, const std::string& key) { return EffectNameOrder()(entry.name, key); });
}

void EffectTable::AddLoaded(std::string&& name, const EffectRecord& record) {
  if (entries_.empty() || EffectNameOrder()(entries_.back().name, name)) {
    entries_.push_back(Entry{std::move(name), record});
    return;
  }
  const auto at = LowerBound(name);
  if (at != entries_.end() && at->name == name) {
    at->record = record;
  } else {
    entries_.insert(at, Entry{std::move(name), record});
  }
}

void EffectTable::Load(std::vector<Entry>&& entries) {
  const auto before = [](const Entry& a, const Entry& b) { return EffectNameOrder()(a.name, b.name); };
  // The index's own order (strictly ascending names) is taken as it is.
  if (std::adjacent_find(entries.begin(), entries.end(),
                         [&before](const Entry& a, const Entry& b) { return !before(a, b); }) == entries.end()) {
    entries_.swap(entries);
    return;
  }
  // A stable sort keeps the entries of one name in index order, so the
  // last of each run is the one the index names last.
  std::stable_sort(entries.begin(), entries.end(), before);
  std::size_t kept = 0;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    if (i + 1 < entries.size() && entries[i + 1].name == entries[i].name) continue;
    if (kept != i) entries[kept] = std::move(entries[i]);
    ++kept;
  }
  entries.resize(kept);
  entries_.swap(entries);
  CheckInvariants();
}

EffectRecord* EffectTable::Find(const std::string& name) {
  const auto at = LowerBound(name);
  return at != entries_.end() && at->name == name ? &at->record : nullptr;
}

const EffectRecord* EffectTable::Find(const std::string& name) const {
  return const_cast<EffectTable*>(this)->Find(name);
}

bool EffectTable::Erase(const std::string& name) {
  const auto at = LowerBound(name);
  if (at == entries_.end() || at->name != name) return false;
  entries_.erase(at);
  return true;
}

void EffectTable::Apply(std::vector<Change>&& changes) {
  assert(std::is_sorted(changes.begin(), changes.end(),
                        [](const Change& a, const Change& b) { return EffectNameOrder()(a.name, b.name); }));
  if (changes.empty()) return;
  std::vector<Entry> merged;
  merged.reserve(entries_.size() + changes.size());
  auto entry = entries_.begin();
  for (Change& change : changes) {
    while (entry != entries_.end() && EffectNameOrder()(entry->name, change.name)) merged.push_back(std::move(*entry++));
    if (entry != entries_.end() && entry->name == change.name) ++entry;  // replaced or removed
    if (!change.remove) merged.push_back(Entry{std::move(change.name), change.record});
  }
  std::move(entry, entries_.end(), std::back_inserter(merged));
  entries_.swap(merged);
  CheckInvariants();
}

std::vector<std::size_t> EffectTable::OldestFirst(bool unpinnedOnly) const {
  std::vector<std::size_t> order;
  order.reserve(entries_.size());
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    if (!unpinnedOnly || entries_[i].record.permanent == 0) order.push_back(i);
  }
  std::stable_sort(order.begin(), order.end(), [this](std::size_t a, std::size_t b) {
    return entries_[a].record.lastUsed < entries_[b].record.lastUsed;
  });
  return order;
}

void EffectTable::EraseMarked(const std::vector<bool>& removed) {
  assert(removed.size() == entries_.size());
  std::size_t kept = 0;
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    if (removed[i]) continue;
    if (kept != i) entries_[kept] = std::move(entries_[i]);
    ++kept;
  }
  entries_.resize(kept);
}

void EffectTable::CheckInvariants() const {
#ifndef NDEBUG
  for (std::size_t i = 1; i < entries_.size(); ++i) {
    assert(EffectNameOrder()(entries_[i - 1].name, entries_[i].name));
  }
#endif
}

}  // namespace Tovrel
