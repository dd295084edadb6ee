#include "SyntheticShaders.h"

#include <array>
#include <cassert>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>

#include "pagefile/LittleEndian.h"

namespace Tovrel {
namespace Tool {

namespace {

constexpr std::uint32_t kMagic = 0x58465654;  // "TVFX"
constexpr std::uint32_t kOpcodes = 48;
constexpr std::uint32_t kRegisterTypes = 4;  // temporary, input, constant, output

const char* const kFamilies[] = {"opaque", "skin", "water", "glass", "terrain",
                                 "foliage", "hair", "particle", "ui", "post"};

// Appends one little-endian 32-bit token.
void Put32(std::vector<unsigned char>& out, std::uint32_t value) {
  unsigned char bytes[4];
  LittleEndian::Store32(bytes, value);
  out.insert(out.end(), bytes, bytes + 4);
}

// Writes bytecode-like content into `out` up to `size` bytes.
class Emitter {
 public:
  Emitter(std::uint64_t seed, std::vector<unsigned char>& out) : random_(seed), out_(out) {}

  void Constants(std::uint32_t count) {
    static const float kCommon[] = {0.0f, 1.0f, 0.5f, 2.0f, -1.0f, 0.25f, 0.2126f, 0.7152f};
    std::uniform_int_distribution<int> pick(0, 11);
    for (std::uint32_t i = 0; i < 4 * count; ++i) {
      const int k = pick(random_);
      const float value = k < 8 ? kCommon[k] : static_cast<float>(random_() % 1000) / 64.0f;
      std::uint32_t bits = 0;
      std::memcpy(&bits, &value, sizeof bits);
      Put32(out_, bits);
    }
  }

  void Instructions(std::size_t size, std::uint32_t constants) {
    // Opcode frequencies fall off geometrically: a few (mov, mul, mad,
    // dp4, sample) make up most of a shader.
    std::geometric_distribution<std::uint32_t> opcode(0.18);
    std::geometric_distribution<std::uint32_t> temp(0.3);
    static const std::uint32_t kSwizzles[] = {0xE4, 0xE4, 0xE4, 0x00, 0x55, 0xAA, 0xFF, 0x44};
    while (out_.size() + 4 <= size) {
      const std::uint32_t op = opcode(random_) % kOpcodes;
      const std::uint32_t operands = 1 + op % 4;
      Put32(out_, op | operands << 8 | (op % 3 == 0 ? 1u << 16 : 0u));
      for (std::uint32_t k = 0; k < operands && out_.size() + 4 <= size; ++k) {
        const std::uint32_t type = k == 0 ? 0 : static_cast<std::uint32_t>(random_() % kRegisterTypes);
        const std::uint32_t index = type == 2 ? static_cast<std::uint32_t>(random_() % constants) : temp(random_) % 16;
        Put32(out_, type << 28 | kSwizzles[random_() % 8] << 16 | index);
      }
    }
    out_.resize(size, 0);
  }

 private:
  std::mt19937_64 random_;
  std::vector<unsigned char>& out_;
};

}  // namespace

SyntheticShaders::SyntheticShaders(std::uint32_t seed, std::uint64_t workRounds)
    : seed_(seed), workRounds_(workRounds) {}

std::uint64_t SyntheticShaders::SeedOf(std::uint32_t index) const {
  return (static_cast<std::uint64_t>(seed_) << 32 | index) * 0x9E3779B97F4A7C15ull;
}

std::string SyntheticShaders::Name(std::uint32_t index) const {
  char number[16];
  std::snprintf(number, sizeof number, "%05u", static_cast<unsigned>(index));
  return std::string(kFamilies[index % (sizeof kFamilies / sizeof kFamilies[0])]) + "/variant_" + number + ".fxo";
}

std::size_t SyntheticShaders::Size(std::uint32_t index) const {
  std::mt19937_64 random(SeedOf(index) ^ 0x5A17);
  const double u = std::uniform_real_distribution<double>(0.0, 1.0)(random);
  const double size = kSmallest * std::pow(static_cast<double>(kLargest) / kSmallest, u);
  const std::size_t rounded = static_cast<std::size_t>(size) & ~std::size_t{3};
  return rounded < kSmallest ? kSmallest : (rounded > kLargest ? kLargest : rounded);
}

std::vector<unsigned char> SyntheticShaders::Compile(std::uint32_t index) const {
  const std::size_t size = Size(index);
  std::vector<unsigned char> out;
  out.reserve(size);
  const std::uint64_t digest = Work(SeedOf(index), workRounds_);
  const std::uint32_t constants = 8 + static_cast<std::uint32_t>(SeedOf(index) % 56);
  Put32(out, kMagic);
  Put32(out, 0x0500);
  Put32(out, static_cast<std::uint32_t>(size));
  Put32(out, constants);
  Put32(out, static_cast<std::uint32_t>(digest));
  Put32(out, static_cast<std::uint32_t>(digest >> 32));
  Put32(out, index);
  Put32(out, 0);
  assert(out.size() == 32);
  Emitter emitter(SeedOf(index), out);
  emitter.Constants(constants);
  emitter.Instructions(size, constants);
  return out;
}

std::uint64_t SyntheticShaders::Work(std::uint64_t seed, std::uint64_t rounds) {
  std::uint64_t x = seed | 1;
  for (std::uint64_t i = 0; i < rounds; ++i) {
    x ^= x >> 29;
    x *= 0xBF58476D1CE4E5B9ull;
    x ^= x >> 32;
  }
  return x;
}

}  // namespace Tool
}  // namespace Tovrel
