// The in-memory file system a fuzz target's files live in, installed as
// the library's file system on first use and kept for the process's life:
// no input touches the disk. Unsynced changes are not tracked (no target
// simulates a power cut). Thread-safety: as MemoryFileSystem.
#ifndef TOVREL_FUZZ_FUZZFILES_H
#define TOVREL_FUZZ_FUZZFILES_H

#include "platform/FileSystem.h"
#include "platform/MemoryFileSystem.h"

namespace TovrelFuzz {

inline Tovrel::MemoryFileSystem& Files() {
  static Tovrel::MemoryFileSystem* files = [] {
    auto* memory = new Tovrel::MemoryFileSystem;
    memory->SetTrackingUnsyncedChanges(false);
    Tovrel::FileSystem::Install(memory);
    return memory;
  }();
  return *files;
}

}  // namespace TovrelFuzz

#endif
