#include "platform/HmacSha256.h"

namespace Tovrel {

bool HmacSha256::Same(const std::uint8_t* a, const std::uint8_t* b) {
  unsigned difference = 0;
  for (std::size_t i = 0; i < kSize; ++i) difference |= static_cast<unsigned>(a[i] ^ b[i]);
  return difference == 0;
}

}  // namespace Tovrel
