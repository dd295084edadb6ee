// TableSoundness: which streams and child files of a loaded package its
// tables describe soundly, so that removing, placing and moving their
// bytes changes nothing of any other stream.
//
// The loader lets a damaged stream pass (a damaged stream must not cost a
// package, and the cache built on it, every other stream). Assess then
// looks at the loaded tables once, in time linear in their size, with one
// array over the allocation table that records which owner reached each
// page first. An owner (a stream with whole pages, a child file) is
// unsound when it breaks one of these rules:
// - a stream's chain, followed from its first page through the allocation
//   table, is exactly fullPageCount pages of the table, each marked in use,
//   the last one linking 0; a child file's chain is the same for its eight
//   pages, which are the ones its record lists, in that order;
// - no page is reached by two owners (both are unsound), nor by an owner
//   and the head chain (the owner is unsound);
// - a child file's list of tails names exactly the streams whose tail
//   records name it, each in the stream table, each record's place being
//   its position in the list; the tails (1 to 8,191 bytes each) lie one
//   after another from byte 0 in list order and end at 65,536 minus its
//   free bytes;
// - a stream whose tail lies in an unsound child file is unsound.
// A page of the head chain that the allocation table does not mark in use
// fails the load instead: a save would overwrite it without journaling it.
//
// The package never frees, moves or writes the pages of what is unsound:
// it refuses to remove an unsound stream, places no tail in an unsound
// child file, opens an unsound stream for reading only, and refuses to
// compact while anything is unsound. Whatever is sound stays sound through
// the package's changes, so the findings hold until the next load.
//
// Owned by value by the package. Thread-safety: none; one thread at a time.
#ifndef TOVREL_PACKAGE_TABLESOUNDNESS_H
#define TOVREL_PACKAGE_TABLESOUNDNESS_H

#include <cstdint>
#include <vector>

#include "package/ChildFileTable.h"
#include "package/StreamTable.h"
#include "pagefile/IPagedFileSeeker.h"
#include "streams/PageAllocator.h"

namespace Tovrel {

class TableSoundness {
 public:
  TableSoundness();

  // Replaces the findings with those of the tables, read from the head
  // chain `head` (every page of it prepared). FileDataCorruptException for
  // a page of the head chain that the allocation table does not mark in use.
  void Assess(PageAllocator& allocator, const StreamTable& streams, const ChildFileTable& childFiles,
              const IPagedFileSeeker& head);
  // Forgets the findings: everything is sound.
  void Clear();

  bool IsSound() const { return unsoundStreams_.empty() && unsoundChildFiles_.empty(); }
  bool IsStreamSound(std::uint64_t identifier) const;
  bool IsChildFileSound(std::uint64_t identifier) const;
  // Identifiers in ascending order.
  const std::vector<std::uint64_t>& GetUnsoundStreams() const { return unsoundStreams_; }
  const std::vector<std::uint64_t>& GetUnsoundChildFiles() const { return unsoundChildFiles_; }

 private:
  // Owner numbers in owners_: nobody, the head chain, then 2 + k for the
  // k-th entry of ownerIds_.
  static constexpr std::uint32_t kNobody = 0;
  static constexpr std::uint32_t kHead = 1;
  static constexpr std::uint32_t kFirstOwner = 2;

  void ClaimHeadChain(PageAllocator& allocator, const IPagedFileSeeker& head);
  // Numbers a new owner; its number.
  std::uint32_t AddOwner(std::uint64_t identifier);
  void WalkStreams(PageAllocator& allocator, const StreamTable& streams);
  void WalkChildFiles(PageAllocator& allocator, const ChildFileTable& childFiles);
  // Follows a chain of `count` pages from `first`, claiming each page for
  // `owner`; false when it breaks a chain rule (`listed`, when given, holds
  // the pages the chain must be). A page another owner reached first makes
  // that owner unsound too.
  bool ClaimChain(PageAllocator& allocator, std::uint32_t owner, std::uint64_t first, std::uint64_t count,
                  const std::uint64_t* listed);
  void CheckTails(const StreamTable& streams, const ChildFileTable& childFiles);
  bool TailsLieInOrder(const StreamTable& streams, const ChildFileTable& childFiles,
                       const ChildFileRecord& child) const;
  void Collect(const StreamTable& streams, const ChildFileTable& childFiles);
  void CheckInvariants() const;

  // While Assess runs: for each page of the allocation table (index: page
  // id - 10), the number of the owner that reached it first; the
  // identifiers of the owners (the streams with whole pages in ascending
  // order, the first streamOwners_, then the child files in ascending
  // order); which owners are unsound.
  std::vector<std::uint32_t> owners_;
  std::vector<std::uint64_t> ownerIds_;
  std::uint64_t streamOwners_;
  std::vector<bool> unsoundOwner_;
  // The findings. Invariant: both sorted ascending, without repeats.
  std::vector<std::uint64_t> unsoundStreams_;
  std::vector<std::uint64_t> unsoundChildFiles_;
};

}  // namespace Tovrel

#endif
