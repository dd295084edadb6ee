// SharedBlockProbe: a MultiProcessMemory for tests that opens blocks of any
// size and records which hook ran.
//
// On creation it checks that the block arrived zero-filled and writes a
// pattern derived from `seed` (FillPattern) over it; on attachment it keeps
// a copy of the bytes it found. Ownership and threads as MultiProcessMemory.
#ifndef TOVREL_TESTS_SHAREDBLOCKPROBE_H
#define TOVREL_TESTS_SHAREDBLOCKPROBE_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "tovrel/MultiProcessMemory.h"

namespace Tovrel {
namespace Testing {

class SharedBlockProbe : public MultiProcessMemory {
 public:
  explicit SharedBlockProbe(std::uint8_t seed = 0) : seed_(seed) {}

  // Initialize, remembering the size so that the hooks know it.
  bool Open(const std::wstring& name, std::size_t bytes) {
    return OpenRaw(name.c_str(), bytes);
  }
  bool OpenRaw(const wchar_t* name, std::size_t bytes) {
    size_ = bytes;
    return Initialize(name, bytes);
  }

  // The bytes a creator with this seed writes.
  static std::vector<std::uint8_t> FillPattern(std::uint8_t seed, std::size_t bytes) {
    std::vector<std::uint8_t> pattern(bytes);
    for (std::size_t i = 0; i < bytes; ++i) pattern[i] = static_cast<std::uint8_t>(seed + i * 7);
    return pattern;
  }

  int created = 0;                        // OnMemoryCreated calls
  int attached = 0;                       // OnMemoryAttached calls
  bool createdZeroFilled = false;         // the last created block was all zeros
  void* memory = nullptr;                 // what the last hook was given
  std::vector<std::uint8_t> foundOnAttach;  // the bytes the last attachment found

 protected:
  void OnMemoryCreated(void* block) override {
    ++created;
    memory = block;
    const std::vector<std::uint8_t> zeros(size_, 0);
    createdZeroFilled = std::memcmp(block, zeros.data(), size_) == 0;
    if (seed_ != 0) std::memcpy(block, FillPattern(seed_, size_).data(), size_);
  }
  void OnMemoryAttached(void* block) override {
    ++attached;
    memory = block;
    const auto* bytes = static_cast<const std::uint8_t*>(block);
    foundOnAttach.assign(bytes, bytes + size_);
  }

 private:
  std::uint8_t seed_;  // 0: leave a created block as it is
  std::size_t size_ = 0;
};

}  // namespace Testing
}  // namespace Tovrel

#endif
