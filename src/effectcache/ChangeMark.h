// ChangeMark: the cache file's change mark, a user-data block that every
// write of the cache changes, so that a process can prove, before it
// writes, that the file is still the one it last loaded.
//
// Block tag 20261126, payload 24 bytes, little-endian: version (4, = 1),
// reserved (4, written as 0), generation (8: a random number chosen when
// a cache file is made, or when a file first gets the block), changes (8:
// counted up by every save, trim, removal, merge and compaction). The
// shared time stamp tells running processes of a save, but it can be lost
// (the named memory removed, two paths to one file); the mark is on disk,
// so a writer compares the mark it loaded with the file's before it
// writes, and loads the file again when they differ.
//
// The block is kept last in the user data (and so last in the package's
// head stream), so that the file's mark is read without loading the file
// (PagedFilePackage::ReadSavedUserDataTail). A file whose user data does
// not end in the block (made before the block existed, or by other code)
// has no mark that can be compared: its writers load it again first.
// Plain value.
#ifndef TOVREL_EFFECTCACHE_CHANGEMARK_H
#define TOVREL_EFFECTCACHE_CHANGEMARK_H

#include <cstdint>

#include "tovrel/IDataStreamSet.h"

namespace Tovrel {

struct ChangeMark {
  static constexpr std::uint32_t kTag = 20261126;
  static constexpr std::uint32_t kVersion = 1;
  static constexpr std::uint64_t kPayloadSize = 24;
  static constexpr std::uint64_t kBlockSize = 12 + kPayloadSize;

  bool present = false;  // false: no mark (nothing equals it)
  std::uint64_t generation = 0;
  std::uint64_t changes = 0;

  // Equal marks prove the same file state; an absent mark proves nothing.
  bool Proves(const ChangeMark& other) const {
    return present && other.present && generation == other.generation && changes == other.changes;
  }
  // The mark the next write gives the file: one change more, or a new
  // generation when there was no mark.
  ChangeMark Next() const;

  // The mark of a block's 36 bytes (its head and payload); absent when
  // they are not a mark block of this version.
  static ChangeMark FromBlock(const std::uint8_t* block);
  // The mark in the package's user data, wherever its block lies; absent
  // when there is none.
  static ChangeMark Read(const IDataStreamSet& package);
  // Puts `mark` in the package's user data as its last block (moving the
  // block there when it lies elsewhere; the other blocks stay as they
  // are). False when the user data cannot grow.
  static bool WriteLast(IDataStreamSet& package, const ChangeMark& mark);
};

}  // namespace Tovrel

#endif
