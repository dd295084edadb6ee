#include "support/AllocationFaults.h"

#include <cstdlib>
#include <new>

namespace Tovrel {
namespace Testing {

namespace {

// Plain values only, so that reaching them never allocates.
struct ThreadState {
  bool counting;
  bool armed;
  bool fired;
  std::uint64_t count;
  std::uint64_t failAt;
  std::size_t largest;
};

thread_local ThreadState state = {false, false, false, 0, 0, 0};

}  // namespace

void AllocationFaults::StartCounting() { state = ThreadState{true, false, false, 0, 0, 0}; }

void AllocationFaults::FailNth(std::uint64_t n) { state = ThreadState{true, true, false, 0, n, 0}; }

void AllocationFaults::Stop() {
  state.counting = false;
  state.armed = false;
}

std::uint64_t AllocationFaults::Count() { return state.count; }

std::size_t AllocationFaults::Largest() { return state.largest; }

bool AllocationFaults::Fired() { return state.fired; }

AllocationFaultPause::AllocationFaultPause() : counting_(state.counting) { state.counting = false; }

AllocationFaultPause::~AllocationFaultPause() { state.counting = counting_; }

void AllocationFaults::OnAllocation(std::size_t size) {
  if (!state.counting) return;
  ++state.count;
  if (size > state.largest) state.largest = size;
  if (state.armed && state.count == state.failAt) {
    state.armed = false;
    state.fired = true;
    throw std::bad_alloc();
  }
}

}  // namespace Testing
}  // namespace Tovrel

namespace {

void* Allocate(std::size_t size) {
  Tovrel::Testing::AllocationFaults::OnAllocation(size);
  void* block = std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

// The nothrow forms (std::stable_sort's buffer, which copes without one)
// come from the same heap, so that the sized delete that returns them
// matches; as before, they are neither counted nor failed.
void* AllocateOrNull(std::size_t size) noexcept { return std::malloc(size == 0 ? 1 : size); }

}  // namespace

void* operator new(std::size_t size) { return Allocate(size); }
void* operator new[](std::size_t size) { return Allocate(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return AllocateOrNull(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return AllocateOrNull(size); }
void operator delete(void* block, const std::nothrow_t&) noexcept { std::free(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { std::free(block); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }
