#include "package/StreamTable.h"

#include <algorithm>
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
  entries_.Clear();
  identifiers_.Clear();
  totalSize_ = 0;
  streamLimit_ = kClearedLimit;
}

void StreamTable::CheckInvariants() const { assert(entries_.Size() == identifiers_.Count()); }

std::uint64_t StreamTable::GetIdentifier(std::uint64_t index) const {
  const std::uint64_t id = identifiers_.GetAllocated(index);
  return id == NorvaneGraphics::AdvancedIdentifierAllocator::kNoIdentifier ? kNoStream : id;
}

const StreamEntry* StreamTable::Find(std::uint64_t identifier) const { return entries_.Find(identifier); }

bool StreamTable::SetFirstPage(std::uint64_t identifier, std::uint64_t page) {
  StreamEntry* found = entries_.Find(identifier);
  if (found == nullptr) return false;
  found->firstPage = page;
  return true;
}

std::uint64_t StreamTable::Add(const StreamEntry& entry) {
  CheckInvariants();
  if (GetCount() >= streamLimit_) return kNoStream;
  const std::uint64_t id = identifiers_.Allocate();
  if (id == NorvaneGraphics::AdvancedIdentifierAllocator::kNoIdentifier) return kNoStream;
  StreamEntry stored = entry;
  stored.identifier = id;
  entries_.Insert(stored);
  totalSize_ += stored.size;
  return id;
}

bool StreamTable::Remove(std::uint64_t identifier) {
  CheckInvariants();
  const StreamEntry* found = entries_.Find(identifier);
  if (found == nullptr) return false;
  totalSize_ -= found->size;
  entries_.Erase(identifier);
  identifiers_.Free(identifier);
  return true;
}

void StreamTable::InsertRead(const StreamEntry& entry) {
  if (identifiers_.IsAllocated(entry.identifier)) throw FileDataCorruptException();
  // The limit comes first, so that no identifier beyond it is ever marked
  // (the allocator's storage grows with the highest identifier it holds).
  if (entry.identifier > streamLimit_ || entry.fullPageCount > kPageLimit) throw InvalidParameterException();
  if (!identifiers_.MarkAllocated(entry.identifier)) throw FileDataCorruptException();
  // All ones (possible only under a limit of all ones) is no identifier.
  if (!entries_.Insert(entry)) throw InvalidParameterException();
  totalSize_ += entry.size;
}

bool StreamTable::Read(RefPtr<IDataStream>& stream, std::uint64_t limit) {
  Clear();
  streamLimit_ = limit;
  const std::uint64_t count = SectionIO::ReadCount(stream);
  if (count > limit) throw FileDataCorruptException();
  entries_.Reserve(static_cast<std::size_t>(std::min(count, SectionIO::Remaining(stream) / StreamEntry::kBytes)));
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
  entries_.ForEach([&](const StreamEntry& entry) {
    SectionIO::Put(bytes, entry.identifier);
    SectionIO::Put(bytes, entry.size);
    SectionIO::Put(bytes, entry.firstPage);
    SectionIO::Put(bytes, entry.fullPageCount);
    if (bytes.size() >= SectionIO::kBlockBytes) SectionIO::Flush(stream, bytes);
  });
  SectionIO::Flush(stream, bytes);
  return true;
}

}  // namespace Tovrel
