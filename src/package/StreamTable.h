// StreamTable: the package's streams: for each stream identifier its
// StreamEntry, the identifiers in use and the sum of the streams' sizes.
//
// Identifiers come from an AdvancedIdentifierAllocator (lowest free first)
// and are listed in ascending order. The table is saved as a section of
// the head stream: an 8-byte count, then one 32-byte entry per stream in
// ascending identifier order. Reading checks the count and every entry
// against the stream limit.
//
// Owned by value by its package. Thread-safety: none; one thread at a time.
#ifndef TOVREL_PACKAGE_STREAMTABLE_H
#define TOVREL_PACKAGE_STREAMTABLE_H

#include <cstdint>

#include "host/AdvancedIdentifierAllocator.h"
#include "host/RefPtr.h"
#include "package/IdentifierTable.h"
#include "pagefile/StreamEntry.h"
#include "tovrel/IDataStream.h"

namespace Tovrel {

class StreamTable {
 public:
  // The limit of a cleared table.
  static constexpr std::uint64_t kClearedLimit = 0xFFFFFF;
  static constexpr std::uint64_t kNoStream = ~std::uint64_t{0};

  StreamTable();

  // Drops every entry and identifier; limit back to kClearedLimit.
  void Clear();
  void SetStreamLimit(std::uint64_t limit) { streamLimit_ = limit; }
  std::uint64_t GetStreamLimit() const { return streamLimit_; }

  std::uint64_t GetCount() const { return identifiers_.Count(); }
  std::uint64_t GetTotalSize() const { return totalSize_; }
  // The index-th identifier in ascending order; kNoStream past the count.
  std::uint64_t GetIdentifier(std::uint64_t index) const;
  // The entry of a stream, or null.
  const StreamEntry* Find(std::uint64_t identifier) const;
  // Calls `visit(const StreamEntry&)` for every entry, in ascending
  // identifier order.
  template <class Visit>
  void ForEach(Visit&& visit) const {
    entries_.ForEach(visit);
  }

  // Stores `entry` under a new identifier and returns it; kNoStream when
  // the table already holds streamLimit identifiers (or none is left).
  std::uint64_t Add(const StreamEntry& entry);
  // Drops a stream's entry; false when there is none.
  bool Remove(std::uint64_t identifier);
  // The stream's chain of whole pages now starts on `page` (its pages
  // were moved); false when there is no such stream.
  bool SetFirstPage(std::uint64_t identifier, std::uint64_t page);

  // Bytes Write produces: 8 + 32 per stream.
  std::uint64_t GetSaveSize() const { return 8 + StreamEntry::kBytes * GetCount(); }
  // Replaces the table with the section at the stream's position.
  // FileIOException for a short section; FileDataCorruptException for a
  // count above `limit`, an identifier given twice or one the allocator
  // refuses; InvalidParameterException for an identifier above `limit` or a
  // page count above 0xFFFF6. The table keeps `limit` as its stream limit.
  bool Read(RefPtr<IDataStream>& stream, std::uint64_t limit);
  // FileIOException when the stream takes fewer bytes.
  bool Write(RefPtr<IDataStream>& stream) const;

 private:
  void InsertRead(const StreamEntry& entry);
  void CheckInvariants() const;

  std::uint64_t streamLimit_;
  std::uint64_t totalSize_;  // sum of the entries' sizes (modulo 2^64)
  // Invariant: an identifier is allocated here exactly when entries_ holds
  // an entry for it, and that entry carries the identifier.
  NorvaneGraphics::AdvancedIdentifierAllocator identifiers_;
  IdentifierTable<StreamEntry, &StreamEntry::identifier> entries_;
};

}  // namespace Tovrel

#endif
