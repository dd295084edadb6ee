#include "SyntheticShaders.h"

#include <gtest/gtest.h>

#include <set>

#include "effectcache/EffectCompression.h"

namespace Tovrel {
namespace Tool {
namespace {

TEST(SyntheticShadersTest, SizesLieBetweenTwoAndSixtyFourKibAndVary) {
  const SyntheticShaders shaders(SyntheticShaders::kDefaultSeed, 0);
  std::set<std::size_t> sizes;
  std::size_t small = 0;
  for (std::uint32_t i = 0; i < 400; ++i) {
    const std::size_t size = shaders.Size(i);
    EXPECT_GE(size, SyntheticShaders::kSmallest);
    EXPECT_LE(size, SyntheticShaders::kLargest);
    if (size < 16384) ++small;
    sizes.insert(size);
  }
  EXPECT_GT(sizes.size(), 300u);
  EXPECT_GT(small, 150u);  // log-uniform: 60 % lie below 16 KiB
}

TEST(SyntheticShadersTest, NamesAreDistinct) {
  const SyntheticShaders shaders(SyntheticShaders::kDefaultSeed, 0);
  std::set<std::string> names;
  for (std::uint32_t i = 0; i < 2000; ++i) names.insert(shaders.Name(i));
  EXPECT_EQ(names.size(), 2000u);
  EXPECT_EQ(shaders.Name(7), "particle/variant_00007.fxo");
}

TEST(SyntheticShadersTest, CompilingGivesTheSameBytesOfTheShadersSize) {
  const SyntheticShaders shaders(SyntheticShaders::kDefaultSeed, 100);
  const std::vector<unsigned char> first = shaders.Compile(11);
  EXPECT_EQ(first.size(), shaders.Size(11));
  EXPECT_EQ(shaders.Compile(11), first);
  EXPECT_NE(shaders.Compile(12), first);
  EXPECT_NE(SyntheticShaders(SyntheticShaders::kDefaultSeed + 1, 100).Compile(11), first);
}

TEST(SyntheticShadersTest, TheWorkOfACompileShowsInTheBytes) {
  EXPECT_NE(SyntheticShaders::Work(5, 1000), SyntheticShaders::Work(5, 1001));
  const std::vector<unsigned char> light = SyntheticShaders(1, 10).Compile(3);
  const std::vector<unsigned char> heavy = SyntheticShaders(1, 20).Compile(3);
  ASSERT_EQ(light.size(), heavy.size());
  EXPECT_NE(light, heavy);
}

TEST(SyntheticShadersTest, TheBytesCompressAsShaderBytecodeDoes) {
  const SyntheticShaders shaders(SyntheticShaders::kDefaultSeed, 0);
  std::uint64_t in = 0;
  std::uint64_t out = 0;
  for (std::uint32_t i = 0; i < 20; ++i) {
    const std::vector<unsigned char> bytes = shaders.Compile(i);
    std::vector<std::uint8_t> packed(EffectCompression::CompressBound(bytes.size()));
    std::uint64_t length = packed.size();
    ASSERT_EQ(EffectCompression::CompressEffect(packed.data(), length, bytes.data(), bytes.size(), 2),
              EffectCompression::kOk);
    in += bytes.size();
    out += length;
  }
  const double ratio = static_cast<double>(in) / static_cast<double>(out);
  EXPECT_GT(ratio, 2.0);
  EXPECT_LT(ratio, 4.0);
}

}  // namespace
}  // namespace Tool
}  // namespace Tovrel
