// RollbackJournal: the file beside a package file that makes its saves
// all-or-nothing ("<package>-journal").
//
// Before a page of the package file that the last completed save left in
// use is overwritten for the first time since that save, its image as that
// save left it is appended to the journal, and the journal reaches stable
// storage before the page is overwritten. The journal also records the
// file's length as of that save. A save is complete when every page is
// written and the package file synced: then the journal's header is
// invalidated and the journal deleted (Finish). Whoever opens the package
// file next and finds a journal (Recover) writes the images back, cuts the
// file to the recorded length, syncs it and deletes the journal: the file
// is again exactly what the last completed save left. A journal whose
// header is incomplete or damaged belongs to a writer that died before it
// overwrote anything (the order above guarantees it) and is only deleted.
//
// The header's check is no secret, so a journal's saved length is not
// trusted to grow the package file: a journal is refused as damaged when
// its saved length is beyond the largest package file (0xFFFF6 pages), or
// beyond both the package file's length and the end of the page of its
// furthest record. A refused journal is set aside as
// "<package>-journal-damaged" (replacing an older one), not applied, and
// the package file stays as it is. Legitimate journals always pass: a save
// only grows the file, except the compaction's cut, which journals the
// saved file's last page before it cuts (see FilePageCache::CutFile).
//
// Bytes (little-endian): a 40-byte header {u64 magic "TVRLJRNL", u32
// version 1, u32 page size 8192, u64 nonce, u64 saved length, u32 CRC-32 of
// the 36 bytes before it, u32 zero}, then records of 8204 bytes {u64 page
// id, 8192 bytes of image, u32 CRC-32 of (nonce, page id, image)}. Records
// are read up to the first that is short or fails its check.
//
// The writer holds the journal's lock (FileSystem::OpenLocked) for as long
// as the journal exists, so an opener can tell a dead writer's journal
// (rolled back) from a living one's (left alone: the open fails).
//
// Owned by the FilePageCache of its package file, for the cache's life.
// Thread-safety: none; one thread at a time, with its cache.
#ifndef TOVREL_PAGEFILE_ROLLBACKJOURNAL_H
#define TOVREL_PAGEFILE_ROLLBACKJOURNAL_H

#include <cstdint>
#include <string>
#include <vector>

#include "platform/FileHandle.h"

namespace Tovrel {

class RollbackJournal {
 public:
  static constexpr const wchar_t* kSuffix = L"-journal";
  static constexpr const wchar_t* kDamagedSuffix = L"-journal-damaged";
  static constexpr std::uint64_t kMagic = 0x4C4E524A4C525654ULL;  // "TVRLJRNL"
  static constexpr std::uint32_t kVersion = 1;
  static constexpr std::uint64_t kHeaderSize = 40;
  static constexpr std::uint64_t kRecordSize = 8 + 8192 + 4;

  // What Inspect finds beside a package file.
  struct Found {
    bool present = false;       // a journal file exists
    bool busy = false;          // a living writer holds it
    bool complete = false;      // its header is whole and it is not damaged: it will be rolled back
    bool damaged = false;       // its header is whole, its saved length refused: it will be set aside
    std::uint64_t savedLength = 0;
    std::vector<std::uint64_t> pageIds;  // pages it would write back, in order
  };

  RollbackJournal();
  ~RollbackJournal();
  RollbackJournal(const RollbackJournal&) = delete;
  RollbackJournal& operator=(const RollbackJournal&) = delete;

  static std::wstring PathFor(const std::wstring& packagePath);
  // Where a journal refused as damaged is set aside.
  static std::wstring DamagedPathFor(const std::wstring& packagePath);

  // Sets the package file this journal protects; nothing is opened.
  void Attach(const std::wstring& packagePath);
  // True while this process writes a journal (from Begin to Finish or Rollback).
  bool IsActive() const { return file_ != nullptr; }
  bool HasUnsyncedRecords() const { return unsynced_; }

  // Creates the journal, locked, with its header, handed to the system.
  // FileIOException when it cannot (no journal is left behind).
  void Begin(std::uint64_t savedLength);
  // True when the page's saved image is already in the journal.
  bool IsJournaled(std::uint64_t pageId) const;
  // Appends the page's saved image. FileIOException when the write fails.
  void Append(std::uint64_t pageId, const std::uint8_t* image);
  // Puts every record appended so far on stable storage.
  void SyncIfNeeded();
  // The save is complete: invalidates the header, closes and deletes the
  // journal. FileIOException when the header cannot be invalidated (the
  // journal then stays, and rolls the save back).
  void Finish();
  // Writes this journal's images back into `package`, cuts it to the saved
  // length, syncs it, and deletes the journal. Returns the saved length.
  // FileIOException when a call fails (the journal stays).
  std::uint64_t Rollback(FileHandle* package);
  // Closes the journal without deleting it (after a failure, so that the
  // next opener rolls back).
  void Abandon();

  // On open: rolls back a dead writer's journal beside the package file,
  // deletes an incomplete one, sets a damaged one aside (see the header
  // comment). FileIOException(EBUSY) when a living writer holds it,
  // FileIOException with errno when a call fails; in either case both
  // files stay as they were.
  static void Recover(const std::wstring& packagePath, FileHandle* package);
  // What a journal beside the package file holds, without changing anything.
  static Found Inspect(const std::wstring& packagePath);
  // Reads the journal's records into `images` (page id -> 8192 bytes) and
  // gives the saved length; false when its header is not whole or the
  // journal is damaged for a package file of `packageLength` bytes.
  static bool ReadImages(FileHandle* journal, std::uint64_t packageLength, std::uint64_t* savedLength,
                         std::vector<std::pair<std::uint64_t, std::vector<std::uint8_t>>>* images);

 private:
  static std::uint64_t ApplyRecords(FileHandle* journal, FileHandle* package);
  // Renames the journal at `path` to `damagedPath` and closes it.
  static void SetAside(FileHandle* journal, const std::wstring& path, const std::wstring& damagedPath);
  // Overwrites the magic, so that the journal is never rolled back again.
  static bool Invalidate(FileHandle* journal);
  static void CloseAndRemove(FileHandle* journal, const std::wstring& path);
  void CloseAndRemove();

  std::wstring path_;        // the journal's path
  FileHandle* file_;         // open (and locked) while active, else null
  std::uint64_t nonce_;      // ties records to this journal
  // Invariant: journaled_[id - 10] is set exactly for pages appended since Begin.
  std::vector<bool> journaled_;
  bool unsynced_;            // records appended since the last sync
  bool torn_;                // the last append failed: the file may end in a torn record
  std::uint64_t end_;        // where the last whole record ends
};

}  // namespace Tovrel

#endif
