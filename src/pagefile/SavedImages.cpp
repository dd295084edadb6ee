#include "pagefile/SavedImages.h"

#include <cstring>
#include <new>

namespace Tovrel {

void SavedImages::Keep(std::uint64_t index, const std::uint8_t* image) noexcept {
  try {
    any_.store(true, std::memory_order_seq_cst);
    std::lock_guard<std::mutex> guard(lock_);
    std::unique_ptr<Image>& kept = images_[index];
    if (kept) return;
    kept.reset(new Image);
    std::memcpy(kept->data(), image, kPageSize);
  } catch (const std::bad_alloc&) {
    incomplete_.store(true, std::memory_order_seq_cst);
  }
}

bool SavedImages::Find(std::uint64_t index, std::uint8_t* into) const {
  std::lock_guard<std::mutex> guard(lock_);
  const auto found = images_.find(index);
  if (found == images_.end() || !found->second) return false;
  std::memcpy(into, found->second->data(), kPageSize);
  return true;
}

std::size_t SavedImages::Count() const {
  std::lock_guard<std::mutex> guard(lock_);
  return images_.size();
}

}  // namespace Tovrel
