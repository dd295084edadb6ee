// CacheFileNames: where a cache folder keeps its file, and the names of
// the shared objects that every process using that file meets.
//
// Every path that leads to one cache file (relative, with "..", through
// symbolic links; on Windows another letter case or a short name) gives
// the same names: they are built from the file's canonical path. For a
// path that is canonical already, they are the file's path with every
// character but ASCII letters and digits made an underscore, then a
// suffix naming the object.
//
// Stateless. Thread-safety: every member may be called from any thread.
#ifndef TOVREL_EFFECTCACHE_CACHEFILENAMES_H
#define TOVREL_EFFECTCACHE_CACHEFILENAMES_H

#include <string>

#include "host/WStr.h"

namespace Tovrel {

class CacheFileNames {
 public:
  static constexpr const wchar_t* kCacheFileName = L"norvaneFxoCache.dat";

  // The cache file of a folder: the folder, a separator unless it ends in
  // one, then kCacheFileName; empty for an empty folder.
  static WStr CacheFilePathFor(const WStr& cacheFolder);
  // ASCII letters and digits kept, every other character an underscore.
  static std::wstring SharedObjectBaseName(const std::wstring& cacheFilePath);
  // The named mutex that guards the file: base name + "_mutex".
  static std::wstring FileMutexName(const std::wstring& cacheFilePath);
  // The shared time stamp that every save renews: base name + "_timestamp".
  static std::wstring TimeStampName(const std::wstring& cacheFilePath);
  // The shared save counter (see CacheFileLock): base name + "_saves";
  // with its own mutex's suffix no longer than the stamp's names, so that
  // the counter never makes a path's names too long for Windows.
  static std::wstring SaveCounterName(const std::wstring& cacheFilePath);
  // Why a cache file is served read only to this process although it may
  // write it: the file belongs to another user (whose named objects this
  // process cannot meet). Empty when it does not.
  static std::string OwnerNote(const std::wstring& cacheFilePath);

 private:
  // The shared-object base name of the file's canonical path.
  static std::wstring CanonicalBaseName(const std::wstring& cacheFilePath);
};

}  // namespace Tovrel

#endif
