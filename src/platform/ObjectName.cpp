#include "platform/ObjectName.h"

#include <cassert>

namespace Tovrel {

namespace {

constexpr std::uint64_t kFnvOffsetBasis = 0xcbf29ce484222325ULL;
constexpr std::uint64_t kFnvPrime = 0x100000001b3ULL;
constexpr std::size_t kHashDigits = 16;

std::string Hex16(std::uint64_t value) {
  static const char kDigits[] = "0123456789abcdef";
  std::string text(kHashDigits, '0');
  for (std::size_t i = kHashDigits; i-- > 0; value >>= 4) text[i] = kDigits[value & 0xF];
  return text;
}

}  // namespace

std::uint64_t ObjectName::Fnv1a64(const std::string& bytes) {
  std::uint64_t hash = kFnvOffsetBasis;
  for (const char c : bytes) {
    hash ^= static_cast<unsigned char>(c);
    hash *= kFnvPrime;
  }
  return hash;
}

std::string ObjectName::Shorten(const std::string& name, std::size_t limit) {
  assert(limit >= kKeptBytes + 1 + kHashDigits);
  if (name.size() <= limit) return name;
  return name.substr(0, kKeptBytes) + "_" + Hex16(Fnv1a64(name));
}

}  // namespace Tovrel
