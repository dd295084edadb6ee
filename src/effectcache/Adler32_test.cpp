#include "effectcache/Adler32.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace Tovrel {
namespace {

TEST(Adler32Test, EqualsZlibsForEveryLengthAndAlignment) {
  std::mt19937 random(3);
  std::vector<std::uint8_t> bytes(12000);
  for (auto& b : bytes) b = static_cast<std::uint8_t>(random());
  for (std::size_t offset = 0; offset < 33; ++offset) {
    for (std::size_t size = 0; offset + size <= bytes.size(); size += (size < 200 ? 1 : 97)) {
      ASSERT_EQ(Adler32::Update(Adler32::kStart, bytes.data() + offset, size),
                Adler32::UpdateScalar(Adler32::kStart, bytes.data() + offset, size))
          << offset << " " << size;
    }
  }
}

TEST(Adler32Test, TheLargestSumsDoNotOverflow) {
  // Bytes of 255 make every sum as large as it can be, across many chunks.
  const std::vector<std::uint8_t> full(3 * 1024 * 1024 + 17, 0xFF);
  for (std::size_t size : {std::size_t{5535}, std::size_t{5536}, std::size_t{5537}, std::size_t{5552},
                           std::size_t{11072}, full.size()}) {
    EXPECT_EQ(Adler32::Update(Adler32::kStart, full.data(), size),
              Adler32::UpdateScalar(Adler32::kStart, full.data(), size))
        << size;
  }
}

TEST(Adler32Test, ContinuesFromAnyValueAsZlibDoes) {
  std::vector<std::uint8_t> bytes(4000);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(i * 7 + 3);
  const std::uint32_t whole = Adler32::Update(Adler32::kStart, bytes.data(), bytes.size());
  for (std::size_t split : {1u, 31u, 32u, 1000u, 3999u}) {
    const std::uint32_t first = Adler32::Update(Adler32::kStart, bytes.data(), split);
    EXPECT_EQ(Adler32::Update(first, bytes.data() + split, bytes.size() - split), whole) << split;
  }
  EXPECT_EQ(Adler32::Update(0xFFF0FFF0u, bytes.data(), bytes.size()) % 65521,
            Adler32::UpdateScalar(0xFFF0FFF0u, bytes.data(), bytes.size()) % 65521);
  EXPECT_EQ(Adler32::Update(Adler32::kStart, nullptr, 0), 1u);
}

}  // namespace
}  // namespace Tovrel
