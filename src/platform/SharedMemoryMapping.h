// SharedMemoryMapping: named blocks of memory shared between processes.
//
// The calls mirror the Windows file-mapping calls: Open (OpenFileMappingW)
// finds an existing block by name, Create (CreateFileMappingW over the
// paging file) makes one, MapView / UnmapView map it into this process and
// Close gives the handle up. A block lives while any process holds a handle
// to it, a process that died included until the system has closed its
// handles; after the last one is closed, the next Open finds nothing and the
// next Create makes the block afresh, zero-filled.
//
// POSIX: a file named after the block (shortened by ObjectName's rule
// beyond 255 bytes) in the user's own object folder (ObjectFolder), mapped
// shared, with every holder keeping a shared flock on a companion lock
// file; a Close that can then take the exclusive lock without waiting is the
// last one and unlinks the block (the companion file itself stays, as every
// lock file does), and an Open that can take it finds a block
// left by holders that died and discards it.
//
// Handles are owned by the caller and end with Close. Failures return null
// or false with the reason in SystemError::Last(). Thread-safety: the calls
// themselves are safe from any thread, but Open, Create and Close for one
// name must be serialised between processes by the caller (the library does
// it with the named mutex that guards the block).
#ifndef TOVREL_PLATFORM_SHAREDMEMORYMAPPING_H
#define TOVREL_PLATFORM_SHAREDMEMORYMAPPING_H

#include <cstddef>
#include <cstdint>

namespace Tovrel {

class SharedMemoryMapping {
 public:
  // The longest name, in characters, the system takes for a block.
  static std::size_t MaxNameLength();

  // A handle to the existing block `name`, or null (none, or no access).
  static void* Open(const wchar_t* name);
  // A handle to a new zero-filled block of `bytes` bytes named `name`, or null.
  static void* Create(const wchar_t* name, std::uint32_t bytes);
  // Maps `bytes` bytes of the block (0: all of it) for reading and writing;
  // null when the block is smaller or the system refuses.
  static void* MapView(void* handle, std::size_t bytes);
  // Unmaps a view that MapView returned for `handle`.
  static bool UnmapView(void* handle, void* view);
  // Gives the handle up; the last one frees the block.
  static bool Close(void* handle);
};

}  // namespace Tovrel

#endif
