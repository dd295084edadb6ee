#include "platform/HmacSha256.h"

#include <dlfcn.h>

#include <climits>
#include <mutex>

namespace Tovrel {

namespace {

// The two libcrypto functions a MAC needs, declared here so that no
// OpenSSL header is needed to build: EVP_sha256() and the one-shot HMAC().
struct Crypto {
  using Digest = const void* (*)();
  using Mac = unsigned char* (*)(const void* digest, const void* key, int keySize, const unsigned char* data,
                                 std::size_t size, unsigned char* mac, unsigned int* macSize);
  Digest sha256 = nullptr;
  Mac hmac = nullptr;
};

const Crypto& LoadedCrypto() {
  static Crypto crypto;
  static std::once_flag once;
  std::call_once(once, [] {
    void* library = dlopen("libcrypto.so.3", RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) return;
    // The library stays loaded for the life of the process.
    Crypto found;
    found.sha256 = reinterpret_cast<Crypto::Digest>(dlsym(library, "EVP_sha256"));
    found.hmac = reinterpret_cast<Crypto::Mac>(dlsym(library, "HMAC"));
    if (found.sha256 != nullptr && found.hmac != nullptr) crypto = found;
  });
  return crypto;
}

}  // namespace

bool HmacSha256::Compute(const std::uint8_t* key, std::size_t keySize, const std::uint8_t* data, std::size_t size,
                         std::uint8_t* mac) {
  const Crypto& crypto = LoadedCrypto();
  if (crypto.hmac == nullptr || keySize > INT_MAX) return false;
  const void* digest = crypto.sha256();
  unsigned int written = 0;
  static const unsigned char kNothing = 0;
  const unsigned char* bytes = data != nullptr ? data : &kNothing;
  return digest != nullptr &&
         crypto.hmac(digest, key, static_cast<int>(keySize), bytes, size, mac, &written) != nullptr &&
         written == kSize;
}

}  // namespace Tovrel
