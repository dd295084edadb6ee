// PageRef: a scoped pin on one page of a FilePageCache.
//
// Lives on the stack of whoever works in a page. Acquiring releases what
// the handle held before; the page is unpinned by Release, by the next
// acquire, and when the handle goes out of scope, exception paths included.
// The requested page id is kept even when the acquire yields null, and
// callers test the data pointer. The cache must outlive the handle.
// Thread-safety: none; used by the thread that uses the cache.
#ifndef TOVREL_PAGEFILE_PAGEREF_H
#define TOVREL_PAGEFILE_PAGEREF_H

#include <cstdint>

#include "pagefile/FilePageCache.h"

namespace Tovrel {

class PageRef {
 public:
  explicit PageRef(FilePageCache* cache) : cache_(cache), data_(nullptr), pageId_(0) {}
  ~PageRef() { Release(); }
  PageRef(const PageRef&) = delete;
  PageRef& operator=(const PageRef&) = delete;

  // Holds the page for reading; returns its bytes or null.
  std::uint8_t* AcquireForRead(std::uint64_t pageId) { return Acquire(pageId, true); }
  // Holds the page for writing (it will be written back); bytes or null.
  std::uint8_t* AcquireForWrite(std::uint64_t pageId) { return Acquire(pageId, false); }
  // Holds the page for writing all of its 8192 bytes: its old bytes are
  // not read unless they must be kept (see FilePageCache::GetPage).
  std::uint8_t* AcquireToOverwrite(std::uint64_t pageId) {
    Release();
    pageId_ = pageId;
    data_ = cache_->GetPage(pageId, false, true);
    return data_;
  }

  // Unpins the held page, if any.
  void Release() {
    if (data_ != nullptr) cache_->UnpinPage(pageId_);
    data_ = nullptr;
    pageId_ = 0;
  }

  std::uint8_t* Data() const { return data_; }
  std::uint64_t PageId() const { return pageId_; }

 private:
  std::uint8_t* Acquire(std::uint64_t pageId, bool forRead) {
    Release();
    pageId_ = pageId;
    data_ = cache_->GetPage(pageId, forRead);
    return data_;
  }

  FilePageCache* cache_;  // not owned
  std::uint8_t* data_;    // the pinned page's bytes; null when nothing is held
  std::uint64_t pageId_;  // the id last requested
};

}  // namespace Tovrel

#endif
