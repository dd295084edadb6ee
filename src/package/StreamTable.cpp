#include "package/StreamTable.h"

#include <cassert>
#include <vector>

#include "package/SectionIO.h"
#include "pagefile/FileDataCorruptException.h"
#include "pagefile/InvalidParameterException.h"
#include "pagefile/LittleEndian.h"
#include "pagefile/PageGeometry.h"

namespace Tovrel {

StreamTable::StreamTable() : streamLimit_(kClearedLimit), totalSize_(0) {}

void StreamTable::Clear() {
  entries_.clear();
  identifiers_.Clear();
  totalSize_ = 0;
  streamLimit_ = kClearedLimit;
}

void StreamTable::CheckInvariants() const { assert(entries_.size() == identifiers_.Count()); }

std::uint64_t StreamTable::GetIdentifier(std::uint64_t index) const {
  const std::uint64_t id = identifiers_.GetAllocated(index);
  return id == NorvaneGraphics::AdvancedIdentifierAllocator::kNoIdentifier ? kNoStream : id;
}

const StreamEntry* StreamTable::Find(std::uint64_t identifier) const {
  const auto found = entries_.find(identifier);
  return found == entries_.end() ? nullptr : &found->second;
}

bool StreamTable::SetFirstPage(std::uint64_t identifier, std::uint64_t page) {
  const auto found = entries_.find(identifier);
  if (found == entries_.end()) return false;
  found->second.firstPage = page;
  return true;
}

std::uint64_t StreamTable::Add(const StreamEntry& entry) {
  CheckInvariants();
  if (GetCount() >= streamLimit_) return kNoStream;
  const std::uint64_t id = identifiers_.Allocate();
  if (id == NorvaneGraphics::AdvancedIdentifierAllocator::kNoIdentifier) return kNoStream;
  StreamEntry stored = entry;
  stored.identifier = id;
  entries_[id] = stored;
  totalSize_ += stored.size;
  return id;
}

bool StreamTable::Remove(std::uint64_t identifier) {
  CheckInvariants();
  const auto found = entries_.find(identifier);
  if (found == entries_.end()) return false;
  totalSize_ -= found->second.size;
  entries_.erase(found);
  identifiers_.Free(identifier);
  return true;
}

void StreamTable::InsertRead(const StreamEntry& entry) {
  if (identifiers_.IsAllocated(entry.identifier)) throw FileDataCorruptException();
  // The limit comes first, so that no identifier beyond it is ever marked
  // (the allocator's storage grows with the highest identifier it holds).
  if (entry.identifier > streamLimit_ || entry.fullPageCount > kPageLimit) throw InvalidParameterException();
  if (!identifiers_.MarkAllocated(entry.identifier)) throw FileDataCorruptException();
  entries_[entry.identifier] = entry;
  totalSize_ += entry.size;
}

bool StreamTable::Read(RefPtr<IDataStream>& stream, std::uint64_t limit) {
  Clear();
  streamLimit_ = limit;
  const std::uint64_t count = SectionIO::ReadCount(stream);
  if (count > limit) throw FileDataCorruptException();
  entries_.reserve(static_cast<std::size_t>(count));
  SectionIO::ReadRecords(stream, count, StreamEntry::kBytes, [this](const std::uint8_t* bytes) {
    InsertRead(StreamEntry{LittleEndian::Load64(bytes), LittleEndian::Load64(bytes + 8),
                           LittleEndian::Load64(bytes + 16), LittleEndian::Load64(bytes + 24)});
    return true;
  });
  CheckInvariants();
  return true;
}

bool StreamTable::Write(RefPtr<IDataStream>& stream) const {
  CheckInvariants();
  std::vector<std::uint8_t> bytes;
  SectionIO::Put(bytes, GetCount());
  for (std::uint64_t k = 0; k < GetCount(); ++k) {
    const StreamEntry& entry = entries_.at(identifiers_.GetAllocated(k));
    SectionIO::Put(bytes, entry.identifier);
    SectionIO::Put(bytes, entry.size);
    SectionIO::Put(bytes, entry.firstPage);
    SectionIO::Put(bytes, entry.fullPageCount);
    if (bytes.size() >= SectionIO::kBlockBytes) SectionIO::Flush(stream, bytes);
  }
  SectionIO::Flush(stream, bytes);
  return true;
}

}  // namespace Tovrel
