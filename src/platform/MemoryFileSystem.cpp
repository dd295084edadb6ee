#include "platform/MemoryFileSystem.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <random>

#include "platform/MemoryFileHandle.h"
#include "platform/SystemValues.h"

namespace Tovrel {

namespace {

struct OpenMode {
  bool valid = false;
  bool mustExist = false;
  bool truncate = false;
  bool readable = false;
  bool writable = false;
  bool append = false;
};

OpenMode ParseMode(const char* mode) {
  OpenMode m;
  if (mode == nullptr) return m;
  const bool plus = std::strchr(mode, '+') != nullptr;
  switch (mode[0]) {
    case 'r':
      m = OpenMode{true, true, false, true, plus, false};
      break;
    case 'w':
      m = OpenMode{true, false, true, plus, true, false};
      break;
    case 'a':
      m = OpenMode{true, false, false, plus, true, true};
      break;
    default:
      break;
  }
  return m;
}

}  // namespace

MemoryFileSystem::MemoryFileSystem() : capacity_(kUnlimited), tracking_(true), powerCut_(false), epoch_(1) {}

MemoryFileSystem::~MemoryFileSystem() = default;

FileHandle* MemoryFileSystem::Open(const wchar_t* path, const char* mode) {
  std::lock_guard<std::mutex> guard(lock_);
  bool busy = false;
  return OpenLockedUnderLock(path != nullptr ? path : L"", mode, false, &busy);
}

FileHandle* MemoryFileSystem::OpenLocked(const wchar_t* path, const char* mode, bool* busy) {
  std::lock_guard<std::mutex> guard(lock_);
  *busy = false;
  return OpenLockedUnderLock(path != nullptr ? path : L"", mode, true, busy);
}

FileHandle* MemoryFileSystem::OpenLockedUnderLock(const std::wstring& path, const char* mode, bool locked,
                                                  bool* busy) {
  const OpenMode m = ParseMode(mode);
  if (powerCut_) {
    errno = EIO;
    return nullptr;
  }
  if (!m.valid || path.empty()) {
    errno = EINVAL;
    return nullptr;
  }
  if (m.writable && IsReadOnly(path)) {
    errno = EACCES;
    return nullptr;
  }
  auto found = files_.find(path);
  if (found == files_.end()) {
    if (m.mustExist) {
      errno = ENOENT;
      return nullptr;
    }
    found = files_.emplace(path, std::make_shared<File>()).first;
  }
  File& file = *found->second;
  if (locked && file.lockHolder != nullptr) {
    *busy = true;
    errno = EWOULDBLOCK;
    return nullptr;
  }
  if (m.truncate && file.content.Size() != 0) Record(file, Change{true, 0, {}});
  auto* handle = new MemoryFileHandle(this, found->second, m.readable, m.writable, m.append, epoch_);
  if (locked) file.lockHolder = handle;
  return handle;
}

void MemoryFileSystem::SetReadOnly(const std::wstring& prefix) {
  std::lock_guard<std::mutex> guard(lock_);
  readOnly_.push_back(prefix);
}

bool MemoryFileSystem::IsReadOnly(const std::wstring& path) const {
  for (const std::wstring& prefix : readOnly_) {
    if (path.compare(0, prefix.size(), prefix) == 0) return true;
  }
  return false;
}

int MemoryFileSystem::Remove(const wchar_t* path) {
  std::lock_guard<std::mutex> guard(lock_);
  if (powerCut_) {
    errno = EIO;
    return -1;
  }
  if (path != nullptr && IsReadOnly(path)) {
    errno = EACCES;
    return -1;
  }
  if (path == nullptr || files_.erase(path) == 0) {
    errno = ENOENT;
    return -1;
  }
  return 0;
}

int MemoryFileSystem::Rename(const wchar_t* from, const wchar_t* to) {
  std::lock_guard<std::mutex> guard(lock_);
  if (powerCut_) {
    errno = EIO;
    return -1;
  }
  if (from == nullptr || to == nullptr) {
    errno = ENOENT;
    return -1;
  }
  if (IsReadOnly(from) || IsReadOnly(to)) {
    errno = EACCES;
    return -1;
  }
  const auto found = files_.find(from);
  if (found == files_.end()) {
    errno = ENOENT;
    return -1;
  }
  // Open handles keep the file itself, under whichever name it has.
  std::shared_ptr<File> file = found->second;
  files_.erase(found);
  files_[to] = file;
  return 0;
}

bool MemoryFileSystem::Exists(const wchar_t* path) {
  std::lock_guard<std::mutex> guard(lock_);
  return path != nullptr && files_.count(path) != 0;
}

std::uint64_t MemoryFileSystem::AvailableBytes(const wchar_t*) {
  std::lock_guard<std::mutex> guard(lock_);
  if (capacity_ == kUnlimited) return std::uint64_t{1} << 50;
  const std::uint64_t used = UsedBytes();
  return used < capacity_ ? capacity_ - used : 0;
}

std::wstring MemoryFileSystem::CanonicalPath(const wchar_t* path) {
  return L"memory" + std::to_wstring(SystemValues::ProcessId()) + L"/" + path;
}

void MemoryFileSystem::CutPower() {
  std::lock_guard<std::mutex> guard(lock_);
  powerCut_ = true;
}

void MemoryFileSystem::SetCapacity(std::uint64_t bytes) {
  std::lock_guard<std::mutex> guard(lock_);
  capacity_ = bytes;
}

void MemoryFileSystem::SetTrackingUnsyncedChanges(bool track) {
  std::lock_guard<std::mutex> guard(lock_);
  tracking_ = track;
  for (auto& entry : files_) {
    File& file = *entry.second;
    file.pending.clear();
    file.durable = track ? file.content : SparseBytes();
  }
}

bool MemoryFileSystem::IsPowerCut() const {
  std::lock_guard<std::mutex> guard(lock_);
  return powerCut_;
}

std::uint64_t MemoryFileSystem::RestorePower(std::uint32_t seed) {
  std::lock_guard<std::mutex> guard(lock_);
  std::mt19937 random(seed);
  std::vector<Change*> kept;
  std::uint64_t dropped = 0;
  for (auto& entry : files_) {
    for (Change& change : entry.second->pending) {
      if (random() % 2 == 0) {
        kept.push_back(&change);
      } else {
        change.isTruncate = false;
        change.bytes.clear();  // dropped: applies nothing
        ++dropped;
      }
    }
  }
  std::vector<Change*> tearable;
  for (Change* change : kept) {
    if (!change->isTruncate && change->bytes.size() > kTornWriteBytes) tearable.push_back(change);
  }
  if (!tearable.empty()) tearable[random() % tearable.size()]->bytes.resize(kTornWriteBytes);
  for (auto& entry : files_) {
    File& file = *entry.second;
    if (tracking_) {
      for (const Change& change : file.pending) Apply(file.durable, change);
      file.pending.clear();
      file.content = file.durable;
    }
    file.lockHolder = nullptr;
  }
  ++epoch_;
  powerCut_ = false;
  return dropped;
}

void MemoryFileSystem::EndProcess() {
  std::lock_guard<std::mutex> guard(lock_);
  for (auto& entry : files_) entry.second->lockHolder = nullptr;
  ++epoch_;
  powerCut_ = false;
}

std::vector<std::uint8_t> MemoryFileSystem::ReadAll(const std::wstring& path) const {
  std::lock_guard<std::mutex> guard(lock_);
  const auto found = files_.find(path);
  return found == files_.end() ? std::vector<std::uint8_t>() : found->second->content.ToVector();
}

bool MemoryFileSystem::Holds(const std::wstring& path, const std::uint8_t* bytes, std::size_t count) const {
  std::lock_guard<std::mutex> guard(lock_);
  const auto found = files_.find(path);
  return found != files_.end() && found->second->content.Equals(bytes, count);
}

void MemoryFileSystem::WriteAll(const std::wstring& path, const std::vector<std::uint8_t>& bytes) {
  std::lock_guard<std::mutex> guard(lock_);
  auto file = std::make_shared<File>();
  file->content.Write(0, bytes.data(), bytes.size());
  if (tracking_) file->durable = file->content;
  files_[path] = file;
}

std::vector<std::wstring> MemoryFileSystem::ListFiles() const {
  std::lock_guard<std::mutex> guard(lock_);
  std::vector<std::wstring> names;
  for (const auto& entry : files_) names.push_back(entry.first);
  return names;
}

std::size_t MemoryFileSystem::UnsyncedChangeCount(const std::wstring& path) const {
  std::lock_guard<std::mutex> guard(lock_);
  const auto found = files_.find(path);
  return found == files_.end() ? 0 : found->second->pending.size();
}

std::uint64_t MemoryFileSystem::UsedBytes() const {
  std::uint64_t used = 0;
  for (const auto& entry : files_) used += entry.second->content.Size();
  return used;
}

bool MemoryFileSystem::Usable(const MemoryFileHandle& handle) const {
  if (powerCut_ || !handle.file_ || handle.epoch_ != epoch_) {
    errno = handle.file_ ? EIO : EBADF;
    return false;
  }
  return true;
}

void MemoryFileSystem::Record(File& file, Change change) {
  Apply(file.content, change);
  if (tracking_) file.pending.push_back(std::move(change));
}

void MemoryFileSystem::Apply(SparseBytes& bytes, const Change& change) {
  if (change.isTruncate) {
    bytes.Resize(change.offset);
  } else if (!change.bytes.empty()) {
    bytes.Write(change.offset, change.bytes.data(), change.bytes.size());
  }
}

std::size_t MemoryFileSystem::HandleRead(MemoryFileHandle& handle, void* buffer, std::size_t bytes) {
  std::lock_guard<std::mutex> guard(lock_);
  if (!Usable(handle)) return 0;
  if (!handle.readable_) {
    errno = EBADF;
    return 0;
  }
  const std::size_t n = handle.file_->content.Read(handle.position_, static_cast<std::uint8_t*>(buffer), bytes);
  handle.position_ += n;
  return n;
}

std::int64_t MemoryFileSystem::HandleReadAt(MemoryFileHandle& handle, void* buffer, std::size_t bytes,
                                           std::uint64_t offset) {
  std::lock_guard<std::mutex> guard(lock_);
  if (!Usable(handle)) return -1;
  if (!handle.readable_) {
    errno = EBADF;
    return -1;
  }
  return static_cast<std::int64_t>(handle.file_->content.Read(offset, static_cast<std::uint8_t*>(buffer), bytes));
}

std::size_t MemoryFileSystem::HandleWrite(MemoryFileHandle& handle, const void* buffer, std::size_t bytes) {
  std::lock_guard<std::mutex> guard(lock_);
  if (!Usable(handle)) return 0;
  if (!handle.writable_) {
    errno = EBADF;
    return 0;
  }
  File& file = *handle.file_;
  if (handle.append_) handle.position_ = file.content.Size();
  const std::uint64_t end = handle.position_ + bytes;
  const std::uint64_t growth = end > file.content.Size() ? end - file.content.Size() : 0;
  if (capacity_ != kUnlimited && UsedBytes() + growth > capacity_) {
    errno = ENOSPC;
    return 0;
  }
  const auto* first = static_cast<const std::uint8_t*>(buffer);
  if (tracking_) {
    Record(file, Change{false, handle.position_, std::vector<std::uint8_t>(first, first + bytes)});
  } else {
    file.content.Write(handle.position_, first, bytes);
  }
  handle.position_ = end;
  return bytes;
}

int MemoryFileSystem::HandleSeek(MemoryFileHandle& handle, std::int64_t offset, int origin) {
  std::lock_guard<std::mutex> guard(lock_);
  if (!Usable(handle)) return -1;
  std::int64_t base = 0;
  if (origin == SEEK_CUR) base = static_cast<std::int64_t>(handle.position_);
  if (origin == SEEK_END) base = static_cast<std::int64_t>(handle.file_->content.Size());
  if (origin != SEEK_SET && origin != SEEK_CUR && origin != SEEK_END) {
    errno = EINVAL;
    return -1;
  }
  if (offset < -base) {
    errno = EINVAL;
    return -1;
  }
  handle.position_ = static_cast<std::uint64_t>(base + offset);
  return 0;
}

std::int64_t MemoryFileSystem::HandleTell(const MemoryFileHandle& handle) {
  std::lock_guard<std::mutex> guard(lock_);
  if (!Usable(handle)) return -1;
  return static_cast<std::int64_t>(handle.position_);
}

int MemoryFileSystem::HandleSync(MemoryFileHandle& handle) {
  std::lock_guard<std::mutex> guard(lock_);
  if (!Usable(handle)) return -1;
  File& file = *handle.file_;
  if (tracking_) file.durable = file.content;
  file.pending.clear();
  return 0;
}

int MemoryFileSystem::HandleTruncate(MemoryFileHandle& handle, std::uint64_t length) {
  std::lock_guard<std::mutex> guard(lock_);
  if (!Usable(handle)) return -1;
  if (!handle.writable_) {
    errno = EBADF;
    return -1;
  }
  File& file = *handle.file_;
  const std::uint64_t growth = length > file.content.Size() ? length - file.content.Size() : 0;
  if (capacity_ != kUnlimited && UsedBytes() + growth > capacity_) {
    errno = ENOSPC;
    return -1;
  }
  Record(file, Change{true, length, {}});
  return 0;
}

int MemoryFileSystem::HandleClose(MemoryFileHandle& handle) {
  std::lock_guard<std::mutex> guard(lock_);
  const bool usable = Usable(handle);
  const int error = errno;
  if (handle.file_ && handle.file_->lockHolder == &handle) handle.file_->lockHolder = nullptr;
  handle.file_.reset();
  if (usable) return 0;
  errno = error;
  return EOF;
}

}  // namespace Tovrel
