#include "package/ChildFileTable.h"

#include <algorithm>
#include <cassert>

#include "package/SectionIO.h"
#include "pagefile/FileDataCorruptException.h"
#include "pagefile/InvalidParameterException.h"
#include "pagefile/LittleEndian.h"
#include "pagefile/PageGeometry.h"

namespace Tovrel {

namespace {

using NorvaneGraphics::AdvancedIdentifierAllocator;

bool RangesOverlap(const StreamTailRecord& a, const StreamTailRecord& b) {
  return a.offset < b.offset + b.size && b.offset < a.offset + a.size;
}

void PutRecord(std::vector<std::uint8_t>& bytes, const ChildFileRecord& record) {
  SectionIO::Put(bytes, record.identifier);
  for (std::uint64_t page : record.page) SectionIO::Put(bytes, page);
  SectionIO::Put(bytes, record.freeBytes);
}

void PutTail(std::vector<std::uint8_t>& bytes, const StreamTailRecord& tail) {
  SectionIO::Put(bytes, tail.streamIdentifier);
  SectionIO::Put(bytes, tail.childFileIdentifier);
  SectionIO::Put(bytes, tail.indexInChild);
  SectionIO::Put(bytes, tail.offset);
  SectionIO::Put(bytes, tail.size);
}

}  // namespace

ChildFileTable::ChildFileTable() = default;

void ChildFileTable::Clear() {
  children_.clear();
  identifiers_.Clear();
  freeIndex_.Clear();
  tails_.Clear();
}

std::uint64_t ChildFileTable::ChildFileLimit(std::uint64_t streamLimit) {
  return std::max<std::uint64_t>(1, streamLimit / 8);
}

void ChildFileTable::CheckInvariants() const {
  assert(children_.size() == identifiers_.Count());
  assert(freeIndex_.Size() == children_.size());
  assert(children_.empty() || children_.back().record.freeBytes <= kChildFileSize);
}

std::size_t ChildFileTable::SlotOf(std::uint64_t identifier) const {
  // Identifiers are handed out lowest first, so child file i usually has
  // identifier i; only a file with gaps needs the search.
  if (identifier < children_.size() && children_[static_cast<std::size_t>(identifier)].record.identifier == identifier) {
    return static_cast<std::size_t>(identifier);
  }
  const auto at = std::lower_bound(children_.begin(), children_.end(), identifier,
                                   [](const ChildFile& c, std::uint64_t id) { return c.record.identifier < id; });
  if (at == children_.end() || at->record.identifier != identifier) return FirstFitIndex::kNone;
  return static_cast<std::size_t>(at - children_.begin());
}

const ChildFileTable::ChildFile* ChildFileTable::Child(std::uint64_t identifier) const {
  const std::size_t slot = SlotOf(identifier);
  return slot == FirstFitIndex::kNone ? nullptr : &children_[slot];
}

ChildFileTable::ChildFile* ChildFileTable::Child(std::uint64_t identifier) {
  const std::size_t slot = SlotOf(identifier);
  return slot == FirstFitIndex::kNone ? nullptr : &children_[slot];
}

bool ChildFileTable::RemoveChildFile(std::uint64_t childFileIdentifier) {
  CheckInvariants();
  const std::size_t slot = SlotOf(childFileIdentifier);
  if (slot == FirstFitIndex::kNone || !children_[slot].tails.empty()) return false;
  children_.erase(children_.begin() + static_cast<std::ptrdiff_t>(slot));
  identifiers_.Free(childFileIdentifier);
  RebuildIndex();
  return true;
}

bool ChildFileTable::SetChildFilePage(std::uint64_t childFileIdentifier, std::uint64_t index, std::uint64_t page) {
  ChildFile* child = Child(childFileIdentifier);
  if (child == nullptr || index >= kChildFilePages) return false;
  child->record.page[index] = page;
  return true;
}

const StreamTailRecord* ChildFileTable::FindTail(std::uint64_t streamIdentifier) const {
  return tails_.Find(streamIdentifier);
}

const ChildFileRecord* ChildFileTable::FindChildFile(std::uint64_t childFileIdentifier) const {
  const ChildFile* child = Child(childFileIdentifier);
  return child == nullptr ? nullptr : &child->record;
}

const std::vector<std::uint64_t>* ChildFileTable::TailsOf(std::uint64_t childFileIdentifier) const {
  const ChildFile* child = Child(childFileIdentifier);
  return child == nullptr ? nullptr : &child->tails;
}

std::uint64_t ChildFileTable::GetChildFileIdentifier(std::uint64_t index) const {
  return index < children_.size() ? children_[index].record.identifier : kNone;
}

std::uint64_t ChildFileTable::FindRoom(std::uint64_t bytes) const {
  // A closed child file's slot holds 0, which no tail (1 byte at least) fits.
  const std::size_t slot = freeIndex_.FindFirst(std::max<std::uint64_t>(bytes, 1));
  return slot == FirstFitIndex::kNone ? kNone : children_[slot].record.identifier;
}

bool ChildFileTable::CloseToNewTails(std::uint64_t childFileIdentifier) {
  CheckInvariants();
  const std::size_t slot = SlotOf(childFileIdentifier);
  if (slot == FirstFitIndex::kNone) return false;
  children_[slot].closed = true;
  freeIndex_.Set(slot, 0);
  return true;
}

void ChildFileTable::RebuildIndex() {
  std::vector<std::uint64_t> free;
  free.reserve(children_.size());
  for (const ChildFile& child : children_) free.push_back(RoomOf(child));
  freeIndex_.Assign(free);
}

std::uint64_t ChildFileTable::AddChildFile(const std::uint64_t (&pages)[kChildFilePages]) {
  CheckInvariants();
  const std::uint64_t id = identifiers_.Allocate();
  if (id == AdvancedIdentifierAllocator::kNoIdentifier) return kNone;
  ChildFile child{ChildFileRecord{id, {}, kChildFileSize}, {}, 0, false};
  std::copy(std::begin(pages), std::end(pages), child.record.page);
  if (children_.empty() || children_.back().record.identifier < id) {
    children_.push_back(std::move(child));
    freeIndex_.Append(kChildFileSize);
  } else {
    // Only after a file whose identifiers have gaps: the new child file
    // fills the lowest one.
    const auto at = std::lower_bound(children_.begin(), children_.end(), id,
                                     [](const ChildFile& c, std::uint64_t v) { return c.record.identifier < v; });
    children_.insert(at, std::move(child));
    RebuildIndex();
  }
  return id;
}

bool ChildFileTable::Overlaps(const ChildFile& child, const StreamTailRecord& tail) const {
  if (tail.offset >= child.usedEnd) return false;
  for (std::uint64_t stream : child.tails) {
    const StreamTailRecord* other = FindTail(stream);
    if (other != nullptr && other->childFileIdentifier == child.record.identifier && RangesOverlap(*other, tail)) {
      return true;
    }
  }
  return false;
}

bool ChildFileTable::AddTail(const StreamTailRecord& tail) {
  CheckInvariants();
  const std::size_t slot = SlotOf(tail.childFileIdentifier);
  if (slot == FirstFitIndex::kNone) return false;
  ChildFile& child = children_[slot];
  if (child.closed || tail.size > child.record.freeBytes || tails_.Find(tail.streamIdentifier) != nullptr ||
      tail.streamIdentifier == TailTable::kAbsent || Overlaps(child, tail)) {
    return false;
  }
  StreamTailRecord stored = tail;
  stored.indexInChild = child.tails.size();
  child.tails.push_back(tail.streamIdentifier);
  child.record.freeBytes -= tail.size;
  child.usedEnd = std::max(child.usedEnd, tail.offset + tail.size);
  freeIndex_.Set(slot, RoomOf(child));
  tails_.Insert(stored);
  return true;
}

bool ChildFileTable::RemoveTail(std::uint64_t streamIdentifier) {
  CheckInvariants();
  const StreamTailRecord* found = tails_.Find(streamIdentifier);
  if (found == nullptr) return false;
  const StreamTailRecord removed = *found;
  const std::size_t slot = SlotOf(removed.childFileIdentifier);
  if (slot == FirstFitIndex::kNone) throw FileDataCorruptException();
  ChildFile& child = children_[slot];
  std::vector<std::uint64_t>& list = child.tails;
  const bool indexed = removed.indexInChild < list.size() && list[removed.indexInChild] == streamIdentifier;
  const auto at = indexed ? list.begin() + static_cast<std::ptrdiff_t>(removed.indexInChild)
                          : std::find(list.begin(), list.end(), streamIdentifier);
  if (at != list.end()) list.erase(at);
  tails_.Erase(streamIdentifier);
  child.usedEnd = 0;
  for (std::uint64_t stream : list) {
    StreamTailRecord* other = tails_.Find(stream);
    if (other == nullptr || other->childFileIdentifier != child.record.identifier) continue;
    StreamTailRecord& tail = *other;
    if (tail.indexInChild > removed.indexInChild) --tail.indexInChild;
    if (tail.offset >= removed.offset + removed.size) tail.offset -= removed.size;
    child.usedEnd = std::max(child.usedEnd, tail.offset + tail.size);
  }
  child.record.freeBytes = std::min(kChildFileSize, child.record.freeBytes + removed.size);
  freeIndex_.Set(slot, RoomOf(child));
  return true;
}

std::uint64_t ChildFileTable::GetSaveSize() const {
  std::uint64_t size = 8 + 8 + StreamTailRecord::kBytes * tails_.Size();
  for (const ChildFile& child : children_) size += ChildFileRecord::kBytes + 8 + 8 * child.tails.size();
  return size;
}

bool ChildFileTable::Write(RefPtr<IDataStream>& stream) const {
  CheckInvariants();
  std::vector<std::uint8_t> bytes;
  SectionIO::Put(bytes, children_.size());
  for (const ChildFile& child : children_) {
    PutRecord(bytes, child.record);
    SectionIO::Put(bytes, child.tails.size());
    for (std::uint64_t id : child.tails) SectionIO::Put(bytes, id);
    if (bytes.size() >= SectionIO::kBlockBytes) SectionIO::Flush(stream, bytes);
  }
  SectionIO::Put(bytes, tails_.Size());
  tails_.ForEach([&](const StreamTailRecord& tail) {
    PutTail(bytes, tail);
    if (bytes.size() >= SectionIO::kBlockBytes) SectionIO::Flush(stream, bytes);
  });
  SectionIO::Flush(stream, bytes);
  return true;
}

void ChildFileTable::ReadChildFile(RefPtr<IDataStream>& stream, std::uint64_t streamLimit) {
  std::uint8_t bytes[ChildFileRecord::kBytes];
  SectionIO::ReadExact(stream, bytes, sizeof bytes);
  ChildFile child{ChildFileRecord{LittleEndian::Load64(bytes), {}, LittleEndian::Load64(bytes + 72)}, {}, 0, false};
  for (std::uint64_t i = 0; i < kChildFilePages; ++i) child.record.page[i] = LittleEndian::Load64(bytes + 8 + 8 * i);
  const std::uint64_t id = child.record.identifier;
  if (identifiers_.IsAllocated(id)) throw FileDataCorruptException();
  if (id > streamLimit || child.record.freeBytes > kChildFileSize || !identifiers_.MarkAllocated(id)) {
    throw FileDataCorruptException();
  }
  const std::uint64_t tailCount = SectionIO::ReadCount(stream);
  if (tailCount > streamLimit || tailCount > SectionIO::Remaining(stream) / 8) throw FileDataCorruptException();
  std::vector<std::uint8_t> list(8 * tailCount);
  if (tailCount != 0 && stream->Read(list.data(), list.size()) != list.size()) throw FileDataCorruptException();
  child.tails.resize(tailCount);
  for (std::uint64_t i = 0; i < tailCount; ++i) child.tails[i] = LittleEndian::Load64(list.data() + 8 * i);
  children_.push_back(std::move(child));
}

bool ChildFileTable::ReadTail(const std::uint8_t* bytes, std::uint64_t streamLimit) {
  const StreamTailRecord tail{LittleEndian::Load64(bytes), LittleEndian::Load64(bytes + 8),
                              LittleEndian::Load64(bytes + 16), LittleEndian::Load64(bytes + 24),
                              LittleEndian::Load64(bytes + 32)};
  if (tail.indexInChild >= streamLimit) return false;
  if (tails_.Find(tail.streamIdentifier) != nullptr) throw FileDataCorruptException();
  ChildFile* child = Child(tail.childFileIdentifier);
  if (tail.streamIdentifier == ~std::uint64_t{0} || tail.streamIdentifier > streamLimit || child == nullptr ||
      tail.offset >= kChildFileSize || tail.size >= kPageSize) {
    throw InvalidParameterException();
  }
  tails_.Insert(tail);
  child->usedEnd = std::max(child->usedEnd, tail.offset + tail.size);
  return true;
}

bool ChildFileTable::Read(RefPtr<IDataStream>& stream, std::uint64_t streamLimit) {
  Clear();
  const std::uint64_t childCount = SectionIO::ReadCount(stream);
  if (childCount > ChildFileLimit(streamLimit)) throw FileDataCorruptException();
  for (std::uint64_t i = 0; i < childCount; ++i) ReadChildFile(stream, streamLimit);
  std::sort(children_.begin(), children_.end(),
            [](const ChildFile& a, const ChildFile& b) { return a.record.identifier < b.record.identifier; });
  RebuildIndex();
  const std::uint64_t totalTails = SectionIO::ReadCount(stream);
  if (totalTails > streamLimit) throw FileDataCorruptException();
  tails_.Reserve(
      static_cast<std::size_t>(std::min(totalTails, SectionIO::Remaining(stream) / StreamTailRecord::kBytes)));
  const bool complete = SectionIO::ReadRecords(
      stream, totalTails, StreamTailRecord::kBytes,
      [this, streamLimit](const std::uint8_t* bytes) { return ReadTail(bytes, streamLimit); });
  CheckInvariants();
  return complete;
}

}  // namespace Tovrel
