#include "platform/FileSystem.h"

#include <atomic>

#include "platform/NativeFileSystem.h"

namespace Tovrel {

namespace {

std::atomic<FileSystem*>& Slot() {
  static std::atomic<FileSystem*> current{nullptr};
  return current;
}

}  // namespace

FileSystem& FileSystem::Current() {
  FileSystem* current = Slot().load(std::memory_order_acquire);
  return current != nullptr ? *current : NativeFileSystem::Instance();
}

FileSystem* FileSystem::Install(FileSystem* fileSystem) {
  FileSystem* former = Slot().exchange(fileSystem, std::memory_order_acq_rel);
  return former != nullptr ? former : &NativeFileSystem::Instance();
}

}  // namespace Tovrel
