// ChildFileTable: the package's child files and the tails packed into them.
//
// A child file is 8 chained pages (64 KiB) whose bytes are handed out to
// stream tails from the front; its record keeps its page ids and free
// bytes, and the table keeps, per child file, the streams whose tails it
// holds in placement order. Each tail has a StreamTailRecord under its
// stream's identifier. Child files are listed in ascending identifier
// order, and a tail goes into the first of them with room (first fit,
// found in O(log n)). Removing streams never removes a child file; only
// the package's compaction drops the ones it emptied. A child file may be
// closed to new tails (the package closes those its damaged table made
// unsound): first fit passes it over and AddTail refuses it.
//
// Saved as a section of the head stream: the child-file count; per child
// file its 80-byte record, its tail count and the stream identifiers of its
// tails; then the tail count of the whole table and one 40-byte record per
// tail in ascending stream identifier order.
//
// Owned by value by its package. Thread-safety: none; one thread at a time.
#ifndef TOVREL_PACKAGE_CHILDFILETABLE_H
#define TOVREL_PACKAGE_CHILDFILETABLE_H

#include <cstdint>
#include <vector>

#include "host/AdvancedIdentifierAllocator.h"
#include "host/RefPtr.h"
#include "package/FirstFitIndex.h"
#include "package/IdentifierTable.h"
#include "pagefile/IChildFileLookup.h"
#include "pagefile/StreamTailRecord.h"
#include "tovrel/IDataStream.h"

namespace Tovrel {

using TailTable = IdentifierTable<StreamTailRecord, &StreamTailRecord::streamIdentifier>;

class ChildFileTable : public IChildFileLookup {
 public:
  static constexpr std::uint64_t kNone = ~std::uint64_t{0};

  ChildFileTable();

  void Clear();
  std::uint64_t GetChildFileCount() const { return children_.size(); }
  std::uint64_t GetTailCount() const { return tails_.Size(); }
  // Child files a table may hold under a stream limit: limit / 8, at least 1.
  static std::uint64_t ChildFileLimit(std::uint64_t streamLimit);

  const StreamTailRecord* FindTail(std::uint64_t streamIdentifier) const override;
  const ChildFileRecord* FindChildFile(std::uint64_t childFileIdentifier) const override;
  // Stream identifiers of the tails in a child file, in placement order.
  const std::vector<std::uint64_t>* TailsOf(std::uint64_t childFileIdentifier) const;
  // The index-th child file's identifier, in ascending order; kNone past the count.
  std::uint64_t GetChildFileIdentifier(std::uint64_t index) const;
  // Every tail record, by stream identifier.
  const TailTable& GetTails() const { return tails_; }

  // The first child file, in identifier order and open to new tails, with
  // at least `bytes` free; kNone when no child file has room.
  std::uint64_t FindRoom(std::uint64_t bytes) const;
  // From now on no new tail goes into the child file (until the table is
  // cleared or read again); false when there is no such child file.
  bool CloseToNewTails(std::uint64_t childFileIdentifier);
  // A new, empty child file over `pages`; its identifier, or kNone when no
  // identifier is left.
  std::uint64_t AddChildFile(const std::uint64_t (&pages)[kChildFilePages]);
  // Adds a tail; its indexInChild becomes the child file's tail count.
  // False when the child file does not exist, is closed to new tails, has
  // fewer free bytes than the tail, holds a tail that the new one
  // overlaps, or when the stream already has a tail.
  bool AddTail(const StreamTailRecord& tail);
  // Drops a stream's tail: it leaves its child file's list, the tails
  // behind it move down (index and, for those behind its end, offset), and
  // its bytes become free again. FileDataCorruptException when its child
  // file is missing; false when the stream has no tail.
  bool RemoveTail(std::uint64_t streamIdentifier);
  // Drops a child file that holds no tail (its pages are the caller's to
  // free); false when there is no such child file or it holds tails.
  bool RemoveChildFile(std::uint64_t childFileIdentifier);
  // The child file's page `index` (0 to 7) is now `page` (it was moved);
  // false when there is no such child file or index.
  bool SetChildFilePage(std::uint64_t childFileIdentifier, std::uint64_t index, std::uint64_t page);

  // Bytes Write produces.
  std::uint64_t GetSaveSize() const;
  // Replaces the table with the section at the stream's position; see the
  // file format for the checks and the exception each one raises. False
  // (no exception) for a tail whose index in its child file is at or above
  // the limit.
  bool Read(RefPtr<IDataStream>& stream, std::uint64_t streamLimit);
  bool Write(RefPtr<IDataStream>& stream) const;

 private:
  struct ChildFile {
    ChildFileRecord record;
    std::vector<std::uint64_t> tails;  // stream identifiers, placement order
    std::uint64_t usedEnd;             // largest offset + size of its tails
    bool closed;                       // closed to new tails
  };

  ChildFile* Child(std::uint64_t identifier);
  const ChildFile* Child(std::uint64_t identifier) const;
  std::size_t SlotOf(std::uint64_t identifier) const;
  bool Overlaps(const ChildFile& child, const StreamTailRecord& tail) const;
  void ReadChildFile(RefPtr<IDataStream>& stream, std::uint64_t streamLimit);
  bool ReadTail(const std::uint8_t* bytes, std::uint64_t streamLimit);
  void RebuildIndex();
  // What first fit sees of a child file: its free bytes, or 0 when closed.
  static std::uint64_t RoomOf(const ChildFile& child) { return child.closed ? 0 : child.record.freeBytes; }
  void CheckInvariants() const;

  // Invariants: children_ is sorted by identifier, the identifiers
  // allocated in identifiers_ are exactly theirs, slot i of freeIndex_ holds
  // RoomOf(children_[i]), and every freeBytes is at most 65536.
  std::vector<ChildFile> children_;
  NorvaneGraphics::AdvancedIdentifierAllocator identifiers_;
  FirstFitIndex freeIndex_;
  TailTable tails_;  // by stream identifier
};

}  // namespace Tovrel

#endif
