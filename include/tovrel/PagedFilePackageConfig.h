// PagedFilePackageConfig: what a file package is opened or created with.
//
// A plain record, filled by the caller and passed by const reference to
// CreateFilePackage or OpenFilePackage; the package keeps its own copy,
// the path included, so the caller's memory need not outlive the call.
// The library gives the fields no defaults.
#ifndef TOVREL_PAGEDFILEPACKAGECONFIG_H
#define TOVREL_PAGEDFILEPACKAGECONFIG_H

#include <cstdint>

namespace Tovrel {

struct PagedFilePackageConfig {
  // Zero-terminated path of the package file.
  const wchar_t* filePath;
  // Pages of 8192 bytes the package may keep in memory; 0 counts as 1.
  std::uint64_t cachePageCount;
  // Most streams the package may hold. When a file is read it also bounds
  // the stream count and identifiers, the number of tails, and (divided by
  // 8, at least 1) the number of child files.
  std::uint64_t streamLimit;
};

}  // namespace Tovrel

#endif
