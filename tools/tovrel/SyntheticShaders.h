// SyntheticShaders: the shader compiler of the demo's make-believe host.
//
// Shader i of a set has a name ("opaque/variant_0001.fxo" ...), a size
// between 2 KiB and 64 KiB (log-uniform, so small shaders are the more
// common) and bytes shaped like compiled shader bytecode: a header, a
// table of float4 constants, then instruction tokens (opcode, operand
// count) with register operands (type, index, swizzle), drawn with the
// skewed frequencies real shaders show. Everything follows from the seed
// and the index, so a later run can tell what it should find.
//
// Compile costs real CPU time: besides making the bytes, it runs a fixed
// number of rounds of a hash (not a sleep), whose digest goes into the
// header so that the work cannot be skipped. The default rounds take a
// few milliseconds on a current core.
//
// Value type; const members are safe from any thread.
#ifndef TOVREL_TOOL_SYNTHETICSHADERS_H
#define TOVREL_TOOL_SYNTHETICSHADERS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Tovrel {
namespace Tool {

class SyntheticShaders {
 public:
  static constexpr std::uint32_t kDefaultSeed = 20091030;
  static constexpr std::uint64_t kDefaultWorkRounds = 1300000;
  static constexpr std::size_t kSmallest = 2048;
  static constexpr std::size_t kLargest = 65536;

  SyntheticShaders(std::uint32_t seed, std::uint64_t workRounds);

  std::string Name(std::uint32_t index) const;
  std::size_t Size(std::uint32_t index) const;
  // The shader's bytes, after the compile's work.
  std::vector<unsigned char> Compile(std::uint32_t index) const;

  // `rounds` rounds of the compile's hash from `seed`.
  static std::uint64_t Work(std::uint64_t seed, std::uint64_t rounds);

 private:
  std::uint64_t SeedOf(std::uint32_t index) const;

  std::uint32_t seed_;
  std::uint64_t workRounds_;
};

}  // namespace Tool
}  // namespace Tovrel

#endif
