// HmacSha256: HMAC-SHA256 (RFC 2104 over FIPS 180-4's SHA-256) by the
// system's own cryptography: OpenSSL's libcrypto on Linux, loaded the
// first time a MAC is asked for (the library does not link it), and
// BCrypt on Windows. Nothing of SHA-256 is written here.
//
// Stateless; every function may be called from any thread.
#ifndef TOVREL_PLATFORM_HMACSHA256_H
#define TOVREL_PLATFORM_HMACSHA256_H

#include <cstddef>
#include <cstdint>

namespace Tovrel {

class HmacSha256 {
 public:
  static constexpr std::size_t kSize = 32;

  // Writes the kSize-byte MAC of `data` under `key` to `mac`; false when
  // the system's cryptography cannot be had (no libcrypto, say).
  static bool Compute(const std::uint8_t* key, std::size_t keySize, const std::uint8_t* data, std::size_t size,
                      std::uint8_t* mac);
  // True when two MACs are equal, in time that does not depend on where
  // they differ.
  static bool Same(const std::uint8_t* a, const std::uint8_t* b);
};

}  // namespace Tovrel

#endif
