#include "effectcache/EffectBatchCompressor.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "effectcache/EffectCompression.h"

namespace Tovrel {
namespace {

// Bytes that compress, unlike random ones, and differ from seed to seed.
std::vector<std::uint8_t> ShaderLikeBytes(std::size_t n, unsigned seed) {
  std::mt19937 random(seed);
  std::vector<std::uint8_t> bytes(n);
  for (std::size_t i = 0; i < n; ++i) bytes[i] = static_cast<std::uint8_t>(random() % 7 + (i / 64) % 5);
  return bytes;
}

std::vector<std::uint8_t> CompressedAlone(const std::vector<std::uint8_t>& input, int level) {
  std::vector<std::uint8_t> out(EffectCompression::CompressBound(input.size()));
  std::uint64_t size = out.size();
  EXPECT_EQ(EffectCompression::CompressEffect(out.data(), size, input.data(), input.size(), level),
            EffectCompression::kOk);
  out.resize(size);
  return out;
}

TEST(EffectBatchCompressorTest, WorkersOnlyForBatchesWorthThem) {
  const std::uint64_t big = EffectBatchCompressor::kMinBytesForWorkers;
  EXPECT_EQ(EffectBatchCompressor::WorkersFor(1, big * 4, 8), 0u);      // one job: nothing to share
  EXPECT_EQ(EffectBatchCompressor::WorkersFor(10, big - 1, 8), 0u);     // too little to compress
  EXPECT_EQ(EffectBatchCompressor::WorkersFor(10, big, 1), 0u);         // one core
  EXPECT_EQ(EffectBatchCompressor::WorkersFor(10, big, 2), 2u);
  EXPECT_EQ(EffectBatchCompressor::WorkersFor(3, big, 16), 3u);         // no more threads than jobs
  EXPECT_EQ(EffectBatchCompressor::WorkersFor(100, big, 64), EffectBatchCompressor::kMostWorkers);
}

TEST(EffectBatchCompressorTest, EveryResultIsWhatCompressingAloneGives) {
  // Large enough in all for worker threads, with sizes from empty to 1 MiB.
  std::vector<std::vector<std::uint8_t>> inputs;
  for (unsigned i = 0; i < 40; ++i) inputs.push_back(ShaderLikeBytes((i * 7919u) % 65536u, i));
  inputs.push_back({});
  inputs.push_back(ShaderLikeBytes(1 << 20, 99));
  std::vector<EffectBatchCompressor::Job> jobs;
  for (const auto& input : inputs) jobs.push_back({input.empty() ? nullptr : input.data(), input.size()});
  for (int level : {1, 6, 9}) {
    const auto results = EffectBatchCompressor::CompressAll(jobs, level);
    ASSERT_EQ(results.size(), inputs.size());
    for (std::size_t i = 0; i < inputs.size(); ++i) {
      ASSERT_TRUE(results[i].ok) << i;
      EXPECT_EQ(results[i].compressed, CompressedAlone(inputs[i], level)) << "job " << i << " level " << level;
    }
  }
}

TEST(EffectBatchCompressorTest, ASmallBatchAndAnEmptyOneAreCompressedToo) {
  const auto input = ShaderLikeBytes(300, 5);
  const auto results = EffectBatchCompressor::CompressAll({{input.data(), input.size()}}, 6);
  ASSERT_EQ(results.size(), 1u);
  ASSERT_TRUE(results[0].ok);
  EXPECT_EQ(results[0].compressed, CompressedAlone(input, 6));
  EXPECT_TRUE(EffectBatchCompressor::CompressAll({}, 6).empty());
}

}  // namespace
}  // namespace Tovrel
