#include "shared/SaveCounter.h"

#include <exception>

#include "shared/SharedBlockAccess.h"

namespace Tovrel {

SaveCounter::SaveCounter() : counter_(nullptr) {}

SaveCounter::~SaveCounter() = default;

bool SaveCounter::Initialize(const wchar_t* name) {
  counter_ = nullptr;
  try {
    const bool opened = SharedBlockAccess::Open(
        [this, name] { return MultiProcessMemory::Initialize(name, sizeof(std::atomic<std::uint64_t>)); });
    if (!opened) return false;
    void* block = SharedBlockAccess::Lock(*this);
    Unlock();
    counter_ = static_cast<std::atomic<std::uint64_t>*>(block);
  } catch (const std::exception&) {
    counter_ = nullptr;
  }
  return counter_ != nullptr;
}

std::uint64_t SaveCounter::Load() const {
  return counter_ != nullptr ? counter_->load(std::memory_order_seq_cst) : 1;
}

std::uint64_t SaveCounter::Begin() {
  const std::uint64_t now = counter_->load(std::memory_order_relaxed);
  const std::uint64_t next = (now % 2 == 0) ? now + 1 : now + 2;
  counter_->store(next, std::memory_order_seq_cst);
  return next;
}

std::uint64_t SaveCounter::End() {
  const std::uint64_t now = counter_->load(std::memory_order_relaxed);
  const std::uint64_t next = (now % 2 == 0) ? now + 2 : now + 1;
  counter_->store(next, std::memory_order_seq_cst);
  return next;
}

}  // namespace Tovrel
