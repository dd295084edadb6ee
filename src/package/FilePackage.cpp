#include "tovrel/FilePackage.h"

#include "package/PagedFilePackage.h"

namespace Tovrel {

namespace {

// Builds a package and starts it with `start` (Create or Reload); any
// failure, thrown or answered, gives an empty result.
RefPtr<IDataStreamSet> Start(const PagedFilePackageConfig& config, bool (PagedFilePackage::*start)()) {
  if (config.filePath == nullptr) return RefPtr<IDataStreamSet>();
  try {
    RefPtr<PagedFilePackage> package(new PagedFilePackage(config));
    if (((*package).*start)()) return RefPtr<IDataStreamSet>(package.Get());
  } catch (...) {
    // Swallowed here: callers see the empty result only.
  }
  return RefPtr<IDataStreamSet>();
}

}  // namespace

RefPtr<IDataStreamSet> CreateFilePackage(const PagedFilePackageConfig& config) {
  return Start(config, &PagedFilePackage::Create);
}

RefPtr<IDataStreamSet> OpenFilePackage(const PagedFilePackageConfig& config) {
  return Start(config, &PagedFilePackage::Reload);
}

}  // namespace Tovrel
