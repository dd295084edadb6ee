#include "pagefile/RollbackJournal.h"

#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "pagefile/FileIOException.h"
#include "pagefile/LittleEndian.h"
#include "pagefile/PageFileIO.h"
#include "pagefile/PageGeometry.h"
#include "platform/PlatformFile.h"

namespace Tovrel {

namespace {

std::uint32_t Crc(std::uint32_t crc, const std::uint8_t* bytes, std::size_t size) {
  return static_cast<std::uint32_t>(crc32(crc, bytes, static_cast<uInt>(size)));
}

std::uint64_t NewNonce() {
  static std::atomic<std::uint64_t> counter{0};
  const auto now = static_cast<std::uint64_t>(std::chrono::high_resolution_clock::now().time_since_epoch().count());
  std::uint64_t x = now ^ (counter.fetch_add(1) * 0x9E3779B97F4A7C15ULL) ^ reinterpret_cast<std::uintptr_t>(&counter);
  x ^= x >> 33;
  x *= 0xFF51AFD7ED558CCDULL;
  x ^= x >> 33;
  return x;
}

struct Header {
  std::uint64_t nonce = 0;
  std::uint64_t savedLength = 0;
};

void EncodeHeader(std::uint8_t (&bytes)[RollbackJournal::kHeaderSize], const Header& header) {
  std::memset(bytes, 0, sizeof(bytes));
  LittleEndian::Store64(bytes, RollbackJournal::kMagic);
  LittleEndian::Store32(bytes + 8, RollbackJournal::kVersion);
  LittleEndian::Store32(bytes + 12, static_cast<std::uint32_t>(kPageSize));
  LittleEndian::Store64(bytes + 16, header.nonce);
  LittleEndian::Store64(bytes + 24, header.savedLength);
  LittleEndian::Store32(bytes + 32, Crc(0, bytes, 32));
}

// Reads the header at the start of the journal; false when it is short,
// foreign or damaged.
bool ReadHeader(FileHandle* journal, Header* header) {
  std::uint8_t bytes[RollbackJournal::kHeaderSize];
  if (PlatformFile::Seek(journal, 0, SEEK_SET) != 0) throw FileIOException(errno);
  errno = 0;
  if (PlatformFile::Read(bytes, sizeof(bytes), 1, journal) != 1) {
    if (errno != 0) throw FileIOException(errno);
    return false;
  }
  if (LittleEndian::Load64(bytes) != RollbackJournal::kMagic || LittleEndian::Load32(bytes + 8) != RollbackJournal::kVersion ||
      LittleEndian::Load32(bytes + 12) != kPageSize || LittleEndian::Load32(bytes + 32) != Crc(0, bytes, 32)) {
    return false;
  }
  header->nonce = LittleEndian::Load64(bytes + 16);
  header->savedLength = LittleEndian::Load64(bytes + 24);
  return true;
}

std::uint32_t RecordCrc(std::uint64_t nonce, const std::uint8_t* record) {
  std::uint8_t prefix[8];
  LittleEndian::Store64(prefix, nonce);
  return Crc(Crc(0, prefix, 8), record, 8 + kPageSize);
}

// Reads the next record; false at the end of the valid records.
bool ReadRecord(FileHandle* journal, std::uint64_t nonce, std::vector<std::uint8_t>& record) {
  record.resize(RollbackJournal::kRecordSize);
  errno = 0;
  if (PlatformFile::Read(record.data(), record.size(), 1, journal) != 1) {
    if (errno != 0) throw FileIOException(errno);
    return false;
  }
  const std::uint64_t pageId = LittleEndian::Load64(record.data());
  return IsPageId(pageId) && LittleEndian::Load32(record.data() + 8 + kPageSize) == RecordCrc(nonce, record.data());
}

void Check(bool ok) {
  if (!ok) throw FileIOException(errno);
}

void SeekToRecords(FileHandle* journal) {
  Check(PlatformFile::Seek(journal, static_cast<std::int64_t>(RollbackJournal::kHeaderSize), SEEK_SET) == 0);
}

// The end of the page of the journal's furthest valid record (0 without
// one): how long a file its records explain.
std::uint64_t RecordsEnd(FileHandle* journal, std::uint64_t nonce) {
  SeekToRecords(journal);
  std::uint64_t end = 0;
  std::vector<std::uint8_t> record;
  while (ReadRecord(journal, nonce, record)) {
    end = std::max(end, PageOffset(LittleEndian::Load64(record.data())) + kPageSize);
  }
  return end;
}

// True when the saved length is one a package file can have, and either
// the package file is that long already or the records reach that far: a
// journal never grows the file past what it explains.
bool Explained(const Header& header, std::uint64_t packageLength, FileHandle* journal) {
  if (header.savedLength > kPageLimit * kPageSize) return false;
  return header.savedLength <= packageLength || header.savedLength <= RecordsEnd(journal, header.nonce);
}

// The length of the package file at `path`, 0 when it cannot be told.
std::uint64_t LengthOf(const std::wstring& path) {
  FileHandle* package = PlatformFile::Open(path.c_str(), "rb");
  if (package == nullptr) return 0;
  std::uint64_t length = 0;
  try {
    length = PageFileIO::GetFileLength(package);
  } catch (const FileIOException&) {
    length = 0;
  }
  PlatformFile::Close(package);
  return length;
}

}  // namespace

RollbackJournal::RollbackJournal() : file_(nullptr), nonce_(0), unsynced_(false), torn_(false), end_(0) {}

RollbackJournal::~RollbackJournal() { Abandon(); }

std::wstring RollbackJournal::PathFor(const std::wstring& packagePath) { return packagePath + kSuffix; }

std::wstring RollbackJournal::DamagedPathFor(const std::wstring& packagePath) { return packagePath + kDamagedSuffix; }

void RollbackJournal::Attach(const std::wstring& packagePath) {
  assert(!IsActive());
  path_ = PathFor(packagePath);
}

void RollbackJournal::Begin(std::uint64_t savedLength) {
  assert(!IsActive());
  bool busy = false;
  FileHandle* file = PlatformFile::OpenLocked(path_.c_str(), "w+b", &busy);
  if (file == nullptr) throw FileIOException(busy ? EBUSY : errno);
  std::uint8_t header[kHeaderSize];
  const std::uint64_t nonce = NewNonce();
  EncodeHeader(header, Header{nonce, savedLength});
  errno = 0;
  if (PlatformFile::Write(header, sizeof(header), 1, file) != 1 || PlatformFile::Flush(file) != 0) {
    const int error = errno;
    PlatformFile::Close(file);
    PlatformFile::Remove(path_.c_str());
    throw FileIOException(error);
  }
  file_ = file;
  nonce_ = nonce;
  unsynced_ = false;
  torn_ = false;
  end_ = kHeaderSize;
  journaled_.clear();
}

bool RollbackJournal::IsJournaled(std::uint64_t pageId) const {
  const std::uint64_t index = pageId - kFirstPageId;
  return IsActive() && index < journaled_.size() && journaled_[index];
}

void RollbackJournal::Append(std::uint64_t pageId, const std::uint8_t* image) {
  assert(IsActive() && IsPageId(pageId) && !IsJournaled(pageId));
  std::uint8_t record[kRecordSize];
  LittleEndian::Store64(record, pageId);
  std::memcpy(record + 8, image, kPageSize);
  LittleEndian::Store32(record + 8 + kPageSize, RecordCrc(nonce_, record));
  // Records are appended where the last whole one ends: the journal is
  // written nowhere else, so no seek is needed, except after a failed
  // write, whose torn bytes the next record overwrites.
  errno = 0;
  if ((torn_ && PlatformFile::Seek(file_, static_cast<std::int64_t>(end_), SEEK_SET) != 0) ||
      PlatformFile::Write(record, sizeof(record), 1, file_) != 1) {
    torn_ = true;
    throw FileIOException(errno);
  }
  torn_ = false;
  end_ += sizeof(record);
  const std::uint64_t index = pageId - kFirstPageId;
  if (index >= journaled_.size()) journaled_.resize(index + 1, false);
  journaled_[index] = true;
  unsynced_ = true;
}

void RollbackJournal::SyncIfNeeded() {
  if (!unsynced_) return;
  Check(PlatformFile::Sync(file_) == 0);
  unsynced_ = false;
}

void RollbackJournal::Finish() {
  if (!IsActive()) return;
  // Once the magic is gone nobody rolls this journal back; deleting the
  // file afterwards is only tidying up.
  errno = 0;
  Check(Invalidate(file_));
  CloseAndRemove();
}

std::uint64_t RollbackJournal::Rollback(FileHandle* package) {
  assert(IsActive());
  Check(PlatformFile::Flush(file_) == 0);
  const std::uint64_t savedLength = ApplyRecords(file_, package);
  Invalidate(file_);
  CloseAndRemove();
  return savedLength;
}

void RollbackJournal::Abandon() {
  if (file_ == nullptr) return;
  PlatformFile::Close(file_);
  file_ = nullptr;
  journaled_.clear();
  unsynced_ = false;
}

void RollbackJournal::CloseAndRemove() {
  CloseAndRemove(file_, path_);
  file_ = nullptr;
  journaled_.clear();
  unsynced_ = false;
}

bool RollbackJournal::Invalidate(FileHandle* journal) {
  const std::uint8_t zeros[8] = {};
  return PlatformFile::Seek(journal, 0, SEEK_SET) == 0 && PlatformFile::Write(zeros, sizeof(zeros), 1, journal) == 1 &&
         PlatformFile::Flush(journal) == 0;
}

void RollbackJournal::CloseAndRemove(FileHandle* journal, const std::wstring& path) {
  // Removed while still locked where the system allows it (POSIX), so that
  // no other opener can take the lock of a journal that is going; where it
  // does not (Windows, a file open without delete sharing), right after.
  const bool removed = PlatformFile::Remove(path.c_str()) == 0;
  PlatformFile::Close(journal);
  if (!removed) PlatformFile::Remove(path.c_str());
}

std::uint64_t RollbackJournal::ApplyRecords(FileHandle* journal, FileHandle* package) {
  Header header;
  if (!ReadHeader(journal, &header)) throw FileIOException(EIO);
  std::vector<std::uint8_t> record;
  while (ReadRecord(journal, header.nonce, record)) {
    const std::uint64_t offset = (LittleEndian::Load64(record.data()) - kFirstPageId) * kPageSize;
    if (offset >= header.savedLength) continue;
    errno = 0;
    Check(PlatformFile::Seek(package, static_cast<std::int64_t>(offset), SEEK_SET) == 0 &&
          PlatformFile::Write(record.data() + 8, kPageSize, 1, package) == 1);
  }
  errno = 0;
  Check(PlatformFile::Truncate(package, header.savedLength) == 0);
  Check(PlatformFile::Sync(package) == 0);
  return header.savedLength;
}

void RollbackJournal::Recover(const std::wstring& packagePath, FileHandle* package) {
  const std::wstring path = PathFor(packagePath);
  if (!PlatformFile::Exists(path.c_str())) return;
  bool busy = false;
  FileHandle* journal = PlatformFile::OpenLocked(path.c_str(), "r+b", &busy);
  if (journal == nullptr) {
    if (busy) throw FileIOException(EBUSY);
    if (errno == ENOENT) return;  // its writer finished in the meantime
    throw FileIOException(errno);
  }
  bool explained = true;
  try {
    Header header;
    if (ReadHeader(journal, &header)) {
      explained = Explained(header, PageFileIO::GetFileLength(package), journal);
      if (explained) {
        ApplyRecords(journal, package);
        Invalidate(journal);
      }
    }
  } catch (...) {
    PlatformFile::Close(journal);
    throw;
  }
  if (explained) {
    CloseAndRemove(journal, path);
  } else {
    SetAside(journal, path, DamagedPathFor(packagePath));
  }
}

void RollbackJournal::SetAside(FileHandle* journal, const std::wstring& path, const std::wstring& damagedPath) {
  // Renamed while still locked where the system allows it (POSIX); where it
  // does not (Windows, a file open without delete sharing), right after.
  const bool renamed = PlatformFile::Rename(path.c_str(), damagedPath.c_str()) == 0;
  PlatformFile::Close(journal);
  if (!renamed && PlatformFile::Rename(path.c_str(), damagedPath.c_str()) != 0) throw FileIOException(errno);
}

RollbackJournal::Found RollbackJournal::Inspect(const std::wstring& packagePath) {
  Found found;
  const std::wstring path = PathFor(packagePath);
  if (!PlatformFile::Exists(path.c_str())) return found;
  found.present = true;
  FileHandle* journal = PlatformFile::Open(path.c_str(), "rb");
  if (journal == nullptr) return found;
  bool locked = false;
  FileHandle* probe = PlatformFile::OpenLocked(path.c_str(), "r+b", &locked);
  if (probe != nullptr) PlatformFile::Close(probe);
  found.busy = locked;
  try {
    Header header;
    found.complete = ReadHeader(journal, &header);
    found.savedLength = header.savedLength;
    found.damaged = found.complete && !Explained(header, LengthOf(packagePath), journal);
    found.complete = found.complete && !found.damaged;
    SeekToRecords(journal);
    std::vector<std::uint8_t> record;
    while (found.complete && ReadRecord(journal, header.nonce, record)) {
      found.pageIds.push_back(LittleEndian::Load64(record.data()));
    }
  } catch (const FileIOException&) {
    found.complete = false;
  }
  PlatformFile::Close(journal);
  return found;
}

bool RollbackJournal::ReadImages(FileHandle* journal, std::uint64_t packageLength, std::uint64_t* savedLength,
                                 std::vector<std::pair<std::uint64_t, std::vector<std::uint8_t>>>* images) {
  Header header;
  if (!ReadHeader(journal, &header) || !Explained(header, packageLength, journal)) return false;
  *savedLength = header.savedLength;
  SeekToRecords(journal);
  std::vector<std::uint8_t> record;
  while (ReadRecord(journal, header.nonce, record)) {
    images->emplace_back(LittleEndian::Load64(record.data()),
                         std::vector<std::uint8_t>(record.begin() + 8, record.begin() + 8 + kPageSize));
  }
  return true;
}

}  // namespace Tovrel
