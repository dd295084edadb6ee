#include "support/CrashWorkload.h"

#include <sstream>

namespace Tovrel {
namespace Testing {

std::uint64_t CrashWorkload::Digest(const std::uint8_t* bytes, std::size_t size) {
  std::uint64_t hash = 0xCBF29CE484222325ULL;
  for (std::size_t i = 0; i < size; ++i) hash = (hash ^ bytes[i]) * 0x100000001B3ULL;
  return hash ^ (static_cast<std::uint64_t>(size) * 0x9E3779B97F4A7C15ULL);
}

std::string CrashWorkload::Describe(const State& state) {
  std::ostringstream out;
  for (const auto& entry : state) out << entry.first << "=" << std::hex << entry.second << std::dec << " ";
  return out.str();
}

}  // namespace Testing
}  // namespace Tovrel
