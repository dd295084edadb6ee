// SideFile: the small advisory files a cache keeps beside its cache file
// (the counts of hosts that never saved, the remote store's last error),
// read whole and replaced whole.
//
// A file is replaced by writing it beside itself under another name and
// renaming that over it, so a reader finds the old bytes or the new ones.
// Nothing is synced: these files are advisory, and a power cut may lose
// the last replacement. Two writers would share the other name, so every
// replacement of one file is made under the cache file's named mutex.
//
// Stateless. Thread-safety: every member may be called from any thread.
#ifndef TOVREL_EFFECTCACHE_SIDEFILE_H
#define TOVREL_EFFECTCACHE_SIDEFILE_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace Tovrel {

class SideFile {
 public:
  // The file `name` in the folder of `cacheFilePath`.
  static std::wstring Beside(const std::wstring& cacheFilePath, const wchar_t* name);
  // Reads up to `capacity` bytes of the file; how many were read, 0 when
  // there is no file or it cannot be read.
  static std::size_t Read(const std::wstring& path, std::uint8_t* bytes, std::size_t capacity);
  // Replaces the file with `size` bytes; false when it could not be
  // written (the file is then as it was).
  static bool Replace(const std::wstring& path, const std::uint8_t* bytes, std::size_t size);
  // Removes the file; true when there is none afterwards.
  static bool Remove(const std::wstring& path);
};

}  // namespace Tovrel

#endif
