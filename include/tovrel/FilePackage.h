// The two ways to a file package: start a new one in a file, or open the
// package a file holds.
//
// Both return the package holding one reference, or an empty RefPtr on any
// failure (no exception leaves them, and no reason is given). Releasing
// the last reference saves unsaved changes and closes the file.
// - CreateFilePackage opens the file for update, or creates it, and saves
//   an empty package into it at once. An existing file is not truncated:
//   its old pages are reused as pages are handed out again.
// - OpenFilePackage reads and checks the package in the file. On a path
//   where no file exists it leaves an empty file behind and fails.
// Thread-safety: the calls may be made from any thread; each package is
// then used by one thread at a time.
#ifndef TOVREL_FILEPACKAGE_H
#define TOVREL_FILEPACKAGE_H

#include "host/RefPtr.h"
#include "tovrel/IDataStreamSet.h"
#include "tovrel/PagedFilePackageConfig.h"
#include "tovrel/export.h"

namespace Tovrel {

TOVREL_API RefPtr<IDataStreamSet> CreateFilePackage(const PagedFilePackageConfig& config);
TOVREL_API RefPtr<IDataStreamSet> OpenFilePackage(const PagedFilePackageConfig& config);

}  // namespace Tovrel

#endif
