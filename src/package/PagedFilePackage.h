// PagedFilePackage: the file package, a set of numbered streams of fixed
// size kept in one paged file, with a block of user data.
//
// A stream of `size` bytes keeps size / 8192 whole pages in one chain of
// the allocation table and its last size % 8192 bytes (its tail) packed
// with other tails into a child file of 8 pages. The package's tables (the
// allocation table, the stream table, the child-file table and the user
// data) live in memory and reach the file only on Save, which writes them
// through a newly laid-out head chain starting on page 10, then closes and
// reopens the page cache so that every written page reaches the file.
// Stream bytes are written in place through the page cache.
//
// Lifecycle: constructed without touching the file; Create (an empty
// package, saved at once) or Load (through Reload) opens it; changes to
// the tables mark it modified; the last Release saves a modified package
// and closes the file. Streams are handed out as ChildFileStreams; the
// package keeps a map of the open ones without holding references (a
// stream leaves the map when it dies; streams still open when the package
// dies are detached and move nothing from then on).
//
// Errors: corrupt tail or child-file data raises FileDataCorruptException
// from OpenStream, CreateStream and RemoveStream (RemoveStream checks the
// tail before it changes anything); file failures raise FileIOException;
// Save lets the section writers' exceptions pass. OpenStream gives nothing
// for a stream of size 0 and for one whose whole-page chain is broken.
//
// Damaged tables: loading is permissive (a damaged stream does not cost
// the package its other streams), but Load finds which streams and child
// files the tables describe soundly (TableSoundness; a head chain page not
// marked in use fails the load). An unsound stream opens for reading only
// (Write moves nothing) and RemoveStream refuses it, with
// FileDataCorruptException before anything changes; no new tail goes into
// an unsound child file, and Compact refuses while anything is unsound.
// So no operation frees, moves or writes a page that a damaged table gives
// to more than one stream, and the sound streams' bytes never change.
//
// Broken packages: when RemoveStream, CreateStream or a step of Compact
// throws after it changed the tables or the cached pages, the change may
// be half done. The package is then broken: Save throws FileIOException
// (EIO) and writes nothing, until Reload or Abandon, and the destructor
// abandons instead of saving, so the file keeps its last completed save.
// An exception thrown by a check before any change leaves the package as
// it was, usable. Reads, and writes to streams, go on meanwhile.
//
// Reference counted (IDataStreamSet); made by CreateFilePackage and
// OpenFilePackage. Owns its page cache, allocator, head seeker and tables.
// Thread-safety: one thread at a time, with its streams; but any number of
// threads may read streams through DirectStreamReader, beside the const
// calls, while no thread changes the package.
#ifndef TOVREL_PACKAGE_PAGEDFILEPACKAGE_H
#define TOVREL_PACKAGE_PAGEDFILEPACKAGE_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "package/ChildFileTable.h"
#include "package/StreamTable.h"
#include "package/TableSoundness.h"
#include "package/UserData.h"
#include "pagefile/FilePageCache.h"
#include "pagefile/IPagedFileSeeker.h"
#include "streams/ChildFileStream.h"
#include "streams/IStreamOwner.h"
#include "streams/PageAllocator.h"
#include "streams/PagedFileStream.h"
#include "tovrel/IDataStreamSet.h"
#include "tovrel/PagedFilePackageConfig.h"

namespace Tovrel {

class PagedFilePackage : public IDataStreamSet, public IStreamOwner {
 protected:
  // Saves a modified package (ignoring failure), then closes it; a broken
  // package is abandoned instead.
  ~PagedFilePackage() override;

 public:
  // A stream limit for reading any package: as high as a package's tables
  // allow, so that any package the library wrote opens.
  static constexpr std::uint64_t kAnyStreamLimit = StreamTable::kClearedLimit;

  // Copies the configuration and the path; touches no file.
  explicit PagedFilePackage(const PagedFilePackageConfig& config);

  // Re-reads the file into a new state; false (this state kept) when a
  // stream is open or the file cannot be loaded (GetLoadFailure tells
  // why). Unsaved page writes are dropped in either case. The former
  // state, if modified, is saved as it goes.
  bool Reload() override;

  // Why the last Reload failed: the file's bytes break a rule of the
  // format (kCorrupt: the file is proven damaged or foreign), or the file
  // could not be read as it is (kUnavailable: a failed file call, no
  // descriptor, no memory, a living writer's journal; the same file may
  // load later). kNone after a Reload that succeeded.
  enum class LoadFailure { kNone, kCorrupt, kUnavailable };
  LoadFailure GetLoadFailure() const { return loadFailure_; }
  // OpenFilePackage that says why it failed: the package, or null with
  // *why set (never kNone then).
  static RefPtr<PagedFilePackage> Open(const PagedFilePackageConfig& config, LoadFailure* why);
  // The same, the file opened only for reading (see LoadReadOnly); a
  // missing file stays missing (kUnavailable).
  static RefPtr<PagedFilePackage> OpenReadOnly(const PagedFilePackageConfig& config, LoadFailure* why);
  // Writes the tables if modified; see the header comment. FileIOException
  // (EIO), nothing written, while the package is broken.
  bool Save() override;
  std::uint64_t GetTotalStreamSize() const override { return streams_.GetTotalSize(); }
  bool SetUserDataSize(std::uint64_t size) override;
  std::uint64_t GetUserDataSize() const override { return userData_.GetSize(); }
  const std::uint8_t* GetUserData() const override { return userData_.Data(); }
  std::uint8_t* GetUserData() override;
  std::uint64_t GetNumberOfStreams() const override { return streams_.GetCount(); }
  std::uint64_t GetStreamIdentifier(std::uint64_t index) const override;
  // An unsound stream (see the header comment) opens for reading only.
  RefPtr<IDataStream> OpenStream(std::uint64_t identifier) override;
  // kNoStream, nothing changed, for a size of 2^31 bytes or more (a
  // stream's positions are signed 32-bit values), beyond the stream limit,
  // or for a tail that would need a child file past what the limit allows.
  std::uint64_t CreateStream(std::uint64_t size) override;
  // FileDataCorruptException, nothing changed, for an unsound stream or one
  // whose tail does not lie in its child file; false while it is open.
  bool RemoveStream(std::uint64_t identifier) override;

  void ForgetStream(std::uint64_t identifier, const ChildFileStream* stream) override;

  // Starts an empty package in the file and saves it.
  bool Create();
  // Starts an empty package that replaces what the file holds, writing
  // nothing yet: the first Save replaces the whole file at once (the
  // pages it overwrites are journaled first, as any save's), so that a
  // failure or a crash before it leaves the file exactly as it was.
  bool Replace();
  // Reads the package from the file; false or an exception when it cannot.
  bool Load();
  // Reads the package from a file opened only for reading: nothing is ever
  // written to it (a journal beside it is read, not rolled back: the
  // package is the file as the rollback would leave it). Changes to the
  // tables stay in memory (Save refuses them); writing stream bytes throws
  // FileIOException(EROFS). Reload keeps the file read only.
  bool LoadReadOnly();
  bool IsReadOnly() const { return access_ == FilePageCache::Access::kReadOnly; }
  // Drops everything: open streams detached, cache closed, tables empty.
  void Close();
  // Forgets every change not yet saved and closes: pages written to the
  // file since the last save are taken back (the file is again as the last
  // completed save left it), and nothing is saved. For an owner whose save
  // failed half-way, so that the half-done save is never completed as a
  // directory later.
  void Abandon();

  // What Compact did.
  struct CompactResult {
    std::uint64_t lengthBefore = 0;  // the file's length in bytes
    std::uint64_t lengthAfter = 0;
    std::uint64_t pagesMoved = 0;    // pages of streams and child files copied nearer the start
    std::uint64_t tailsMoved = 0;    // tails moved into room in child files before theirs
    std::uint64_t childFilesFreed = 0;
  };
  // Shrinks the file to the pages in use. Tails move out of the child
  // files of the highest identifiers into the first child file with room
  // before theirs (where a new tail would go), and the child files left
  // empty are freed; then the pages of streams and child files that lie
  // past the end the used pages need are copied into free pages before
  // it, the tables are saved with a new head chain, and the file is cut,
  // all in one save (a crash at any moment leaves the file as
  // it was or as compacted). Streams keep their identifiers and bytes.
  // Unsaved changes are saved first; a file without free pages is left
  // untouched. False (nothing done) when a stream is open or the package
  // is read only or not open. FileDataCorruptException, before anything
  // is saved or changed, when a stream or child file is unsound: the file
  // stays untouched and the package usable. A failed file call throws
  // FileIOException: the file is then as it was, and the package reloaded
  // from it (closed when that fails too).
  bool Compact(CompactResult* result);
  // True when Compact would change the file (free pages, a file longer
  // than its pages, or a tail that can move to an earlier child file).
  bool NeedsCompaction() const;

  // Reads the last `size` bytes of the user data as the file holds them
  // now (see SavedHeadTail), without loading the file or touching the
  // cache; false when the package is not open or its file's head chain
  // breaks a rule. User data shorter than `size` comes with bytes of the
  // tables before it: callers check what they read. FileIOException when
  // a file call fails.
  bool ReadSavedUserDataTail(std::uint8_t* out, std::uint64_t size);

  bool IsModified() const { return modified_; }
  // The package file's length in bytes as last seen; 0 when not open.
  std::uint64_t GetFileLength() const { return cache_ ? cache_->GetFileLength() : 0; }
  // True from a change that threw half-way until Reload or Abandon.
  bool IsBroken() const { return broken_; }
  const TableSoundness& GetSoundness() const { return soundness_; }
  const PagedFilePackageConfig& GetConfig() const { return config_; }
  FilePageCache* GetPageCache() const { return cache_.get(); }
  PageAllocator& GetAllocator() const { return *allocator_; }
  const StreamTable& GetStreamTable() const { return streams_; }
  const ChildFileTable& GetChildFileTable() const { return childFiles_; }
  const IPagedFileSeeker* GetHeadSeeker() const { return headSeeker_.Get(); }
  std::uint64_t GetOpenStreamCount() const { return openStreams_.size(); }
  // True when the stream and the child file of its tail are sound.
  bool IsSound(std::uint64_t identifier) const;

 private:
  static RefPtr<PagedFilePackage> OpenWith(const PagedFilePackageConfig& config, FilePageCache::Access access,
                                           LoadFailure* why);
  void SwapState(PagedFilePackage& other);
  // Runs a change of the tables or the cached pages: should it throw, the
  // package is broken (see the header comment) and the exception goes on.
  template <typename Change>
  void Changing(Change change);
  // Stores a new stream's entry under an identifier that no tail record
  // names (a damaged table may leave records of streams it lacks);
  // kNoStream when no identifier is left.
  std::uint64_t AddEntry(const StreamEntry& entry);
  void RemoveSoundStream(const StreamEntry& entry, const StreamTailRecord* tail);
  std::uint64_t AddStream(std::uint64_t size);
  // The four tables from the head stream, in file order.
  bool ReadTables();
  // Drops the cache's unsaved pages and rolls the file back to the last
  // save; false when that fails (the cache has then closed itself).
  bool RollBackPageWrites();
  std::uint64_t AllocateChain(std::uint64_t pages);
  void FreeChain(std::uint64_t firstPage, std::uint64_t pages);
  std::uint64_t ChildFileWithRoom(std::uint64_t bytes);
  void PlaceTail(std::uint64_t identifier, std::uint64_t bytes);
  RefPtr<PagedFileStream> ChildFileAsStream(std::uint64_t childFileIdentifier);
  void CompactChildFile(const StreamTailRecord& tail);
  void PackTails(CompactResult* result);
  void MoveTail(const StreamTailRecord& tail, std::uint64_t childFileIdentifier);
  void MoveOpenTails(std::uint64_t childFileIdentifier);
  void FreeHeadChain();
  std::vector<std::uint64_t> LayOutHeadChain(std::uint64_t restBytes);
  std::uint64_t GetRestSaveSize() const;
  bool WriteHead(std::uint64_t restBytes);
  void WriteSections(RefPtr<IDataStream>& head);
  void CommitSave();
  std::uint64_t CompactedPageCount(std::uint64_t restBytes) const;
  std::uint64_t MovePagesBelow(std::uint64_t end);
  void CopyPage(std::uint64_t from, std::uint64_t to, std::uint8_t* image);
  void CompactOrThrow(CompactResult* result);
  void ReopenCache();
  void ReleaseOpenStreamPages();
  void CheckInvariants() const;

  bool modified_;
  LoadFailure loadFailure_;       // of the last Reload
  // Set when a change threw half-way; see the header comment. Invariant:
  // set only while cache_ is.
  bool broken_;
  FilePageCache::Access access_;  // how Load opens the file
  // Invariant: config_.filePath points at path_.
  PagedFilePackageConfig config_;
  std::wstring path_;
  std::unique_ptr<FilePageCache> cache_;  // null until created or loaded
  RefPtr<PageAllocator> allocator_;       // made once, reset by Close
  StreamTable streams_;
  ChildFileTable childFiles_;
  UserData userData_;
  // What the last load found unsound; empty after Create.
  TableSoundness soundness_;
  // The head chain: a reader after Load, a writer after Save; set only
  // while cache_ is.
  RefPtr<IPagedFileSeeker> headSeeker_;
  // The open streams, holding no reference; each is in the stream table.
  std::map<std::uint64_t, ChildFileStream*> openStreams_;
};

}  // namespace Tovrel

#endif
