#include "platform/SharedMemoryMapping.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstring>
#include <limits>
#include <memory>
#include <string>

#include "platform/ObjectName.h"
#include "platform/WideText.h"
#include "platform/posix/LockFile.h"
#include "platform/posix/ObjectFolder.h"

namespace Tovrel {

namespace {

// A block's file name: the name, shortened to leave room for the suffix.
constexpr std::size_t kFileNameLimit = 255;
constexpr const char* kBlockSuffix = ".block";

std::string BlockPath(const std::string& name) {
  const std::string folder = ObjectFolder::Path();
  if (folder.empty()) return std::string();
  return folder + "/" + ObjectName::Shorten(name, kFileNameLimit - std::strlen(kBlockSuffix)) + kBlockSuffix;
}

// What a handle stands for: one open block and this holder's shared lock on
// the block's companion file.
struct Block {
  explicit Block(const std::string& name) : path(BlockPath(name)), holders(name, ".holders") {}

  ~Block() {
    const int error = errno;
    if (fd >= 0) close(fd);
    if (holders.IsOpen()) DropHold();
    errno = error;
  }

  // Gives this holder's lock up; when no other holder is left, removes the
  // block, as the system frees a mapping whose last handle closes. The
  // companion file stays (lock files are never removed), so every holder
  // of the name always locks the same file.
  void DropHold() {
    holders.Flock(LOCK_UN);
    if (holders.Flock(LOCK_EX | LOCK_NB)) unlink(path.c_str());
    holders.Close();
  }

  std::string path;     // the block's file in the user's object folder
  LockFile holders;     // held shared while this handle lives
  int fd = -1;          // the shared-memory object, or -1
  // Invariant: view is null exactly when viewBytes is 0.
  void* view = nullptr;       // the one view mapped through this handle
  std::size_t viewBytes = 0;  // its length
};

bool UsableName(const wchar_t* name) {
  if (name != nullptr && name[0] != L'\0') return true;
  errno = EINVAL;
  return false;
}

}  // namespace

std::size_t SharedMemoryMapping::MaxNameLength() { return std::numeric_limits<std::size_t>::max(); }

void* SharedMemoryMapping::Open(const wchar_t* name) {
  if (!UsableName(name)) return nullptr;
  auto block = std::make_unique<Block>(WideText::ToUtf8(name));
  if (!block->holders.Open()) return nullptr;
  if (block->holders.Flock(LOCK_EX | LOCK_NB)) {
    // No holder is alive: anything under the name was left by processes
    // that died, and goes now.
    block.reset();
    errno = ENOENT;
    return nullptr;
  }
  if (errno != EWOULDBLOCK || !block->holders.Flock(LOCK_SH)) return nullptr;
  block->fd = open(block->path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
  if (block->fd < 0) return nullptr;
  return block.release();
}

void* SharedMemoryMapping::Create(const wchar_t* name, std::uint32_t bytes) {
  if (!UsableName(name)) return nullptr;
  if (bytes == 0) {
    errno = EINVAL;
    return nullptr;
  }
  auto block = std::make_unique<Block>(WideText::ToUtf8(name));
  if (!block->holders.Open() || !block->holders.Flock(LOCK_SH)) return nullptr;
  block->fd = open(block->path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (block->fd < 0) return nullptr;
  if (ftruncate(block->fd, static_cast<off_t>(bytes)) != 0) return nullptr;
  return block.release();
}

void* SharedMemoryMapping::MapView(void* handle, std::size_t bytes) {
  Block& block = *static_cast<Block*>(handle);
  assert(block.view == nullptr && block.viewBytes == 0);
  struct stat status {};
  if (fstat(block.fd, &status) != 0) return nullptr;
  const auto size = static_cast<std::size_t>(status.st_size);
  if (bytes == 0) bytes = size;
  if (bytes == 0 || bytes > size) {
    errno = EINVAL;
    return nullptr;
  }
  void* view = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, block.fd, 0);
  if (view == MAP_FAILED) return nullptr;
  block.view = view;
  block.viewBytes = bytes;
  return view;
}

bool SharedMemoryMapping::UnmapView(void* handle, void* view) {
  Block& block = *static_cast<Block*>(handle);
  if (view == nullptr || view != block.view) {
    errno = EINVAL;
    return false;
  }
  const bool unmapped = munmap(view, block.viewBytes) == 0;
  block.view = nullptr;
  block.viewBytes = 0;
  return unmapped;
}

bool SharedMemoryMapping::Close(void* handle) {
  if (handle == nullptr) {
    errno = EBADF;
    return false;
  }
  delete static_cast<Block*>(handle);
  return true;
}

}  // namespace Tovrel
