#include "effectcache/EffectTable.h"

#include <algorithm>
#include <cassert>
#include <iterator>
#include <utility>

namespace Tovrel {

namespace {

// A time stamp in 52 bits (never 0: no year is 0), and back.
std::uint64_t Pack(const CacheTimeStamp& t) {
  std::uint64_t v = t.year;
  v = (v << 4) | (t.month & 0xF);
  v = (v << 5) | (t.day & 0x1F);
  v = (v << 5) | (t.hour & 0x1F);
  v = (v << 6) | (t.minute & 0x3F);
  v = (v << 6) | (t.second & 0x3F);
  return (v << 10) | (t.milliseconds & 0x3FF);
}

CacheTimeStamp Unpack(std::uint64_t v) {
  CacheTimeStamp t{};
  t.milliseconds = static_cast<std::uint32_t>(v & 0x3FF);
  t.second = static_cast<std::uint16_t>((v >> 10) & 0x3F);
  t.minute = static_cast<std::uint16_t>((v >> 16) & 0x3F);
  t.hour = static_cast<std::uint16_t>((v >> 22) & 0x1F);
  t.day = static_cast<std::uint16_t>((v >> 27) & 0x1F);
  t.month = static_cast<std::uint16_t>((v >> 32) & 0xF);
  t.year = static_cast<std::uint16_t>(v >> 36);
  return t;
}

}  // namespace

std::size_t EffectTable::IndexOf(const std::string& name) const {
  const auto at = const_cast<EffectTable*>(this)->LowerBound(name);
  return at != entries_.end() && at->name == name ? static_cast<std::size_t>(at - entries_.begin()) : kNone;
}

void EffectTable::MarkUsed(std::size_t i, const CacheTimeStamp& when) const {
  assert(i < markCount_);
  const bool packable = when.year != 0 && when.month < 16 && when.day < 32 && when.hour < 32 && when.minute < 64 &&
                        when.second < 64 && when.milliseconds < 1024;
  if (!packable || i >= markCount_) return;
  marks_[i].store(Pack(when), std::memory_order_relaxed);
  anyMarked_.store(true, std::memory_order_relaxed);
}

void EffectTable::FoldUses() {
  if (!anyMarked_.exchange(false, std::memory_order_relaxed)) return;
  for (std::size_t i = 0; i < markCount_; ++i) {
    const std::uint64_t mark = marks_[i].exchange(0, std::memory_order_relaxed);
    if (mark != 0) entries_[i].record.lastUsed = Unpack(mark);
  }
}

void EffectTable::ResetMarks() {
  anyMarked_.store(false, std::memory_order_relaxed);
  if (markCount_ == entries_.size()) {
    for (std::size_t i = 0; i < markCount_; ++i) marks_[i].store(0, std::memory_order_relaxed);
    return;
  }
  marks_.reset();
  markCount_ = 0;
  if (entries_.empty()) return;
  marks_.reset(new std::atomic<std::uint64_t>[entries_.size()]());
  markCount_ = entries_.size();
}

void EffectTable::Clear() {
  entries_.clear();
  ResetMarks();
}

void EffectTable::Swap(EffectTable& other) {
  FoldUses();
  other.FoldUses();
  entries_.swap(other.entries_);
  ResetMarks();
  other.ResetMarks();
}

std::vector<EffectTable::Entry>::iterator EffectTable::LowerBound(const std::string& name) {
  return std::lower_bound(entries_.begin(), entries_.end(), name,
                          [](const Entry& entry, const std::string& key) { return EffectNameOrder()(entry.name, key); });
}

void EffectTable::AddLoaded(std::string&& name, const EffectRecord& record) {
  FoldUses();
  if (entries_.empty() || EffectNameOrder()(entries_.back().name, name)) {
    entries_.push_back(Entry{std::move(name), record});
    ResetMarks();
    return;
  }
  const auto at = LowerBound(name);
  if (at != entries_.end() && at->name == name) {
    at->record = record;
  } else {
    entries_.insert(at, Entry{std::move(name), record});
  }
  ResetMarks();
}

void EffectTable::Load(std::vector<Entry>&& entries) {
  FoldUses();
  const auto before = [](const Entry& a, const Entry& b) { return EffectNameOrder()(a.name, b.name); };
  // The index's own order (strictly ascending names) is taken as it is.
  if (std::adjacent_find(entries.begin(), entries.end(),
                         [&before](const Entry& a, const Entry& b) { return !before(a, b); }) == entries.end()) {
    entries_.swap(entries);
    ResetMarks();
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
  ResetMarks();
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
  FoldUses();
  entries_.erase(at);
  ResetMarks();
  return true;
}

void EffectTable::Apply(std::vector<Change>&& changes) {
  assert(std::is_sorted(changes.begin(), changes.end(),
                        [](const Change& a, const Change& b) { return EffectNameOrder()(a.name, b.name); }));
  if (changes.empty()) return;
  FoldUses();
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
  ResetMarks();
  CheckInvariants();
}

std::vector<std::size_t> EffectTable::OldestFirst(bool unpinnedOnly) {
  FoldUses();
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
  FoldUses();
  std::size_t kept = 0;
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    if (removed[i]) continue;
    if (kept != i) entries_[kept] = std::move(entries_[i]);
    ++kept;
  }
  entries_.resize(kept);
  ResetMarks();
}

void EffectTable::CheckInvariants() const {
  assert(markCount_ == entries_.size());
#ifndef NDEBUG
  for (std::size_t i = 1; i < entries_.size(); ++i) {
    assert(EffectNameOrder()(entries_[i - 1].name, entries_[i].name));
  }
#endif
}

}  // namespace Tovrel
