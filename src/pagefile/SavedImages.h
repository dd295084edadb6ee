// SavedImages: the saved images of the pages a save overwrites, kept in
// memory for readers that read the saved state straight from the file
// while the save runs (see SearchSnapshot in the effect cache).
//
// A save overwrites a page of the saved state only after its saved image
// is in the journal; a page cache given a SavedImages (see
// FilePageCache::KeepSavedImages) also keeps each image here, when it
// journals it, before the page can change in the file. A reader of the
// saved state reads a page from the file first and then asks Find: a page
// found here may have been overwritten, and its kept image is the saved
// one; a page not found here had not begun to change when the reader's
// read of the file was done. Once the save has completed (Seal), pages
// freed by it may be reused without a journal, so a reader that finds the
// images sealed after its read must not trust it; nor when an image
// could not be kept (no memory).
//
// Shared (std::shared_ptr) by the page cache that fills it and the readers
// that use it; lives while either holds it. Thread-safety: Keep, Find,
// Seal and the checks may be called from any threads at once.
#ifndef TOVREL_PAGEFILE_SAVEDIMAGES_H
#define TOVREL_PAGEFILE_SAVEDIMAGES_H

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "pagefile/PageGeometry.h"

namespace Tovrel {

class SavedImages {
 public:
  using Image = std::array<std::uint8_t, kPageSize>;

  // Keeps the saved image of page `index` (file offset / page size), unless
  // one is kept already. Never throws: without memory, the images are
  // marked incomplete instead.
  void Keep(std::uint64_t index, const std::uint8_t* image) noexcept;
  // Copies the kept image of page `index` into `into`; false when none is kept.
  bool Find(std::uint64_t index, std::uint8_t* into) const;
  // The save has completed: nothing read from the file can be trusted now.
  void Seal() noexcept { sealed_.store(true, std::memory_order_seq_cst); }
  // True while reads of the file, completed before this call, together
  // with the kept images give the saved state.
  bool Trusted() const noexcept {
    return !sealed_.load(std::memory_order_seq_cst) && !incomplete_.load(std::memory_order_seq_cst);
  }
  std::size_t Count() const;
  // True while no image was kept (no lock taken).
  bool Empty() const noexcept { return !any_.load(std::memory_order_seq_cst); }

 private:
  mutable std::mutex lock_;
  // Guarded by lock_: page index to its saved image.
  std::unordered_map<std::uint64_t, std::unique_ptr<Image>> images_;
  std::atomic<bool> any_{false};  // set before the first image is in images_
  std::atomic<bool> sealed_{false};
  std::atomic<bool> incomplete_{false};
};

}  // namespace Tovrel

#endif
