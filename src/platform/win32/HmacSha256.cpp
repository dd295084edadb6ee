#include "platform/HmacSha256.h"

#include <windows.h>
#include <bcrypt.h>

#include <climits>

namespace Tovrel {

namespace {

bool Succeeded(NTSTATUS status) { return status >= 0; }

}  // namespace

bool HmacSha256::Compute(const std::uint8_t* key, std::size_t keySize, const std::uint8_t* data, std::size_t size,
                         std::uint8_t* mac) {
  if (keySize > ULONG_MAX || size > ULONG_MAX) return false;
  BCRYPT_ALG_HANDLE algorithm = nullptr;
  if (!Succeeded(BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_SHA256_ALGORITHM, nullptr,
                                             BCRYPT_ALG_HANDLE_HMAC_FLAG))) {
    return false;
  }
  BCRYPT_HASH_HANDLE hash = nullptr;
  bool done = Succeeded(BCryptCreateHash(algorithm, &hash, nullptr, 0, const_cast<PUCHAR>(key),
                                         static_cast<ULONG>(keySize), 0));
  if (done) {
    done = (size == 0 || Succeeded(BCryptHashData(hash, const_cast<PUCHAR>(data), static_cast<ULONG>(size), 0))) &&
           Succeeded(BCryptFinishHash(hash, mac, static_cast<ULONG>(kSize), 0));
    BCryptDestroyHash(hash);
  }
  BCryptCloseAlgorithmProvider(algorithm, 0);
  return done;
}

}  // namespace Tovrel
