// InstalledFileSystem: a MemoryFileSystem made current for the life of the
// object (the former file system comes back when it dies).
//
// For tests whose files need not touch the disk, and for crash tests that
// cut the power. One at a time per process. Thread-safety: construct and
// destroy on the test's thread while no other thread uses files.
#ifndef TOVREL_TESTS_INSTALLEDFILESYSTEM_H
#define TOVREL_TESTS_INSTALLEDFILESYSTEM_H

#include "platform/FileSystem.h"
#include "platform/MemoryFileSystem.h"

namespace Tovrel {
namespace Testing {

class InstalledFileSystem {
 public:
  InstalledFileSystem() : former_(FileSystem::Install(&memory_)) {}
  ~InstalledFileSystem() { FileSystem::Install(former_); }
  InstalledFileSystem(const InstalledFileSystem&) = delete;
  InstalledFileSystem& operator=(const InstalledFileSystem&) = delete;

  MemoryFileSystem& Memory() { return memory_; }

 private:
  MemoryFileSystem memory_;
  FileSystem* former_;
};

}  // namespace Testing
}  // namespace Tovrel

#endif
