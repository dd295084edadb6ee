#include "host/NorvaneHeapOperators.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "host/GraphicsHeapOperators.h"

namespace {

struct Plain : NorvaneGraphics::GraphicsHeapOperators {
  std::uint64_t values[64];
  Plain() {}  // leaves values alone on purpose
};

TEST(HeapOperatorsTest, MemoryIsZeroFilledBeforeTheConstructorRuns) {
  // Dirty the heap first so that a reused block would show old bytes.
  for (int round = 0; round < 8; ++round) {
    void* dirty = ::operator new(sizeof(Plain));
    std::memset(dirty, 0xCD, sizeof(Plain));
    ::operator delete(dirty);
    Plain* plain = new Plain;
    for (std::uint64_t v : plain->values) ASSERT_EQ(v, 0u);
    delete plain;
  }
}

TEST(HeapOperatorsTest, ArraysAreZeroFilledToo) {
  Plain* many = new Plain[3];
  for (int i = 0; i < 3; ++i) {
    for (std::uint64_t v : many[i].values) ASSERT_EQ(v, 0u);
  }
  delete[] many;
}

TEST(HeapOperatorsTest, TheOperatorHandsOutZeroedBlocks) {
  void* block = Plain::operator new(4096);
  const auto* bytes = static_cast<const unsigned char*>(block);
  for (int i = 0; i < 4096; ++i) ASSERT_EQ(bytes[i], 0);
  Plain::operator delete(block);
}

}  // namespace
