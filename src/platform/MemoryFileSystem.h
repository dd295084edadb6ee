// MemoryFileSystem: files kept in memory, for tests and fuzz targets, with
// simulated power cuts.
//
// Installed as the current FileSystem, it serves every file the library
// opens; no byte touches the disk. Paths are plain keys (no folders). It
// keeps two images of each file: what the system holds (what every reader
// sees) and what stable storage holds (the bytes as of the file's last
// Sync), plus the list of writes and length changes made since that sync.
// Creating, renaming and removing files reaches stable storage at once.
//
// A power cut (CutPower, or a FileFaults cut) freezes everything: from then
// on every call fails with EIO and nothing changes. RestorePower then makes
// each file what stable storage held plus a seeded random subset of the
// changes made since its last sync, in their order, with one kept write
// torn (only its first 512 bytes land), as a disk that lost its write cache
// would; handles opened before become unusable. EndProcess plays the death
// of the process instead (after a cut, or at any time): what was written
// stays, handles and their locks go, and calls work again. A capacity (SetCapacity) makes writes that would pass it fail with
// ENOSPC and is what AvailableBytes reports.
//
// Owned by the test that installs it; must outlive every handle it made
// (a handle left open when it dies must only be deleted, never used).
// Thread-safety: every operation, of the file system and of its handles,
// may be called from any thread (one lock serialises them).
#ifndef TOVREL_PLATFORM_MEMORYFILESYSTEM_H
#define TOVREL_PLATFORM_MEMORYFILESYSTEM_H

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/FileSystem.h"
#include "platform/SparseBytes.h"

namespace Tovrel {

class MemoryFileHandle;

class MemoryFileSystem : public FileSystem {
 public:
  static constexpr std::uint64_t kUnlimited = ~std::uint64_t{0};
  static constexpr std::size_t kTornWriteBytes = 512;

  MemoryFileSystem();
  ~MemoryFileSystem() override;

  FileHandle* Open(const wchar_t* path, const char* mode) override;
  FileHandle* OpenLocked(const wchar_t* path, const char* mode, bool* busy) override;
  int Remove(const wchar_t* path) override;
  int Rename(const wchar_t* from, const wchar_t* to) override;
  bool Exists(const wchar_t* path) override;
  std::uint64_t AvailableBytes(const wchar_t* folder) override;
  void CutPower() override;
  // The path under a prefix of this process: the named objects made after
  // it (a cache file's mutex and shared blocks) belong to this process's
  // files alone, as a disk in memory is this process's alone, so that two
  // test processes using the same paths at once never share them.
  std::wstring CanonicalPath(const wchar_t* path) override;

  // Bytes all files may hold together (kUnlimited: no bound).
  void SetCapacity(std::uint64_t bytes);
  // Paths that start with `prefix` (a file, or a folder with its
  // separator) may be opened for reading only: opening one to write,
  // creating one and removing one fail with EACCES, as on a read-only
  // share.
  void SetReadOnly(const std::wstring& prefix);
  // When false, writes are not kept apart for power cuts (faster; for fuzz
  // targets): a restore then keeps everything.
  void SetTrackingUnsyncedChanges(bool track);
  bool IsPowerCut() const;
  // See the header comment. Returns the number of unsynced changes that
  // were dropped.
  std::uint64_t RestorePower(std::uint32_t seed);
  void EndProcess();

  // What the system holds for a file (empty when there is none), and a
  // file put in place as if written and synced long ago.
  std::vector<std::uint8_t> ReadAll(const std::wstring& path) const;
  // True when the system holds exactly these bytes for a file that exists.
  bool Holds(const std::wstring& path, const std::uint8_t* bytes, std::size_t count) const;
  void WriteAll(const std::wstring& path, const std::vector<std::uint8_t>& bytes);
  std::vector<std::wstring> ListFiles() const;
  // Changes made since the file's last sync (0 when there is no file).
  std::size_t UnsyncedChangeCount(const std::wstring& path) const;

 private:
  friend class MemoryFileHandle;

  struct Change {
    bool isTruncate;
    std::uint64_t offset;  // write: where; truncate: the new length
    std::vector<std::uint8_t> bytes;
  };
  // Invariant: while changes are tracked, `content` is `durable` with
  // every change of `pending` applied in order (untracked, `durable` and
  // `pending` stay empty); lockHolder is an open handle of this epoch or null.
  struct File {
    SparseBytes content;
    SparseBytes durable;
    std::vector<Change> pending;
    const MemoryFileHandle* lockHolder = nullptr;
  };

  bool IsReadOnly(const std::wstring& path) const;
  FileHandle* OpenLockedUnderLock(const std::wstring& path, const char* mode, bool locked, bool* busy);
  std::uint64_t UsedBytes() const;
  bool Usable(const MemoryFileHandle& handle) const;
  void Record(File& file, Change change);
  static void Apply(SparseBytes& bytes, const Change& change);

  // Operations of MemoryFileHandle, under lock_.
  std::size_t HandleRead(MemoryFileHandle& handle, void* buffer, std::size_t bytes);
  std::int64_t HandleReadAt(MemoryFileHandle& handle, void* buffer, std::size_t bytes, std::uint64_t offset);
  std::size_t HandleWrite(MemoryFileHandle& handle, const void* buffer, std::size_t bytes);
  int HandleSeek(MemoryFileHandle& handle, std::int64_t offset, int origin);
  std::int64_t HandleTell(const MemoryFileHandle& handle);
  int HandleSync(MemoryFileHandle& handle);
  int HandleTruncate(MemoryFileHandle& handle, std::uint64_t length);
  int HandleClose(MemoryFileHandle& handle);

  mutable std::mutex lock_;
  std::map<std::wstring, std::shared_ptr<File>> files_;
  std::uint64_t capacity_;
  std::vector<std::wstring> readOnly_;  // prefixes of paths that may not be written
  bool tracking_;
  bool powerCut_;
  // Handles of an earlier epoch (before a restore or a process end) are unusable.
  std::uint64_t epoch_;
};

}  // namespace Tovrel

#endif
