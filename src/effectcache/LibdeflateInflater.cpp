#include "effectcache/LibdeflateInflater.h"

#include <libdeflate.h>

#include <atomic>
#include <cstdlib>

namespace Tovrel {

namespace {

std::atomic<std::uint64_t> decodedTotal{0};

}  // namespace

LibdeflateInflater::Lease LibdeflateInflater::Borrow() {
  static ScratchPool<LibdeflateInflater> pool;
  return pool.Borrow();
}

std::uint64_t LibdeflateInflater::DecodedTotal() { return decodedTotal.load(std::memory_order_relaxed); }

LibdeflateInflater::~LibdeflateInflater() {
  libdeflate_free_decompressor(decompressor_);
  std::free(buffer_);
}

bool LibdeflateInflater::Reserve(std::size_t bytes) {
  if (bytes <= capacity_) return true;
  // Powers of two from 64 KiB: a thread that decodes effects of growing
  // sizes allocates a few times, not once per effect.
  std::size_t grown = std::size_t{1} << 16;
  while (grown < bytes) grown <<= 1;
  if (grown > kBufferLimit) grown = kBufferLimit;
  auto* buffer = static_cast<std::uint8_t*>(std::malloc(grown));
  if (buffer == nullptr) return false;
  std::free(buffer_);
  buffer_ = buffer;
  capacity_ = grown;
  return true;
}

bool LibdeflateInflater::Inflate(const std::uint8_t* source, std::size_t size, std::size_t room,
                                 const std::uint8_t*& out, std::size_t& produced) {
  if (decompressor_ == nullptr) decompressor_ = libdeflate_alloc_decompressor();
  if (decompressor_ == nullptr) return false;
  const std::size_t avail = room < kBufferLimit ? room : kBufferLimit;
  if (!Reserve(avail)) return false;
  std::size_t consumed = 0;
  if (libdeflate_zlib_decompress_ex(decompressor_, source, size, buffer_, avail, &consumed, &produced) !=
      LIBDEFLATE_SUCCESS) {
    return false;
  }
  out = buffer_;
  ++decoded_;
  decodedTotal.fetch_add(1, std::memory_order_relaxed);
  return true;
}

bool LibdeflateInflater::InflateInto(const std::uint8_t* source, std::size_t size, std::uint8_t* dest,
                                     std::size_t room, std::size_t& produced) {
  if (decompressor_ == nullptr) decompressor_ = libdeflate_alloc_decompressor();
  if (decompressor_ == nullptr) return false;
  std::size_t consumed = 0;
  if (libdeflate_zlib_decompress_ex(decompressor_, source, size, dest, room, &consumed, &produced) !=
      LIBDEFLATE_SUCCESS) {
    return false;
  }
  ++decoded_;
  decodedTotal.fetch_add(1, std::memory_order_relaxed);
  return true;
}

}  // namespace Tovrel
