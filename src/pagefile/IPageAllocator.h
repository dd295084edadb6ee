// IPageAllocator: which pages of a package file are in use, and how the
// pages in use chain.
//
// Link values: 0 = in use, last of its chain; 1 = free; 10..0xFFFFF = in
// use, followed by that page. The page layer walks chains through
// GetNextPage; the package allocates and frees. Every operation that looks
// at a given page first requires 10 <= id <= 0xFFFFF and throws
// InvalidParameterException otherwise.
//
// Reference counted, held through RefPtr<IPageAllocator>. Thread-safety:
// none; callers serialise every call.
#ifndef TOVREL_PAGEFILE_IPAGEALLOCATOR_H
#define TOVREL_PAGEFILE_IPAGEALLOCATOR_H

#include <cstdint>

#include "host/ARefObject.h"

namespace Tovrel {

class IPageAllocator : public NorvaneGraphics::ARefObject {
 protected:
  ~IPageAllocator() override = default;

 public:
  static constexpr std::uint64_t kEndLink = 0;
  static constexpr std::uint64_t kFreeLink = 1;

  // Takes a page and, when `previous` is a page id, chains it after it.
  virtual std::uint64_t AllocatePage(std::uint64_t previous) = 0;
  // Marks one page free.
  virtual void FreePage(std::uint64_t page) = 0;
  // Marks a given page in use (end of chain); false if it already was.
  virtual bool ClaimPage(std::uint64_t page) = 0;
  virtual bool IsPageAllocated(std::uint64_t page) = 0;
  // The page's link value (0, 1 or the next page id).
  virtual std::uint64_t GetNextPage(std::uint64_t page) = 0;
};

}  // namespace Tovrel

#endif
