// LibdeflateInflater: libdeflate's decompressor with an output buffer of
// its own. Decoders borrow one from a pool of the process (Borrow) for
// one decode and give it back: the decompressor is made at the first
// decode and kept, with the buffer, for the next borrower; the pool keeps
// a bounded number and frees them when the library is unloaded.
//
// A stream is decoded into the buffer, not into the caller's: libdeflate
// may write anywhere in the room it is given, past the bytes it produces
// and wherever it likes when it refuses a stream, while zlib's uncompress
// writes its bytes and nothing else. Only bytes a caller takes are copied
// out. Memory comes from malloc, as zlib's and libdeflate's own does.
//
// Thread-safety: an instance is used by one thread at a time, the one
// holding its lease; Borrow and DecodedTotal may be called from any
// thread.
#ifndef TOVREL_EFFECTCACHE_LIBDEFLATEINFLATER_H
#define TOVREL_EFFECTCACHE_LIBDEFLATEINFLATER_H

#include <cstddef>
#include <cstdint>

#include "effectcache/ScratchPool.h"

struct libdeflate_decompressor;

namespace Tovrel {

class LibdeflateInflater {
 public:
  // The most bytes the buffer holds: as many as the largest effect.
  static constexpr std::size_t kBufferLimit = std::size_t{1} << 20;

  using Lease = ScratchPool<LibdeflateInflater>::Lease;

  // An inflater of the process's pool, the calling thread's until the
  // lease ends; a lease of null when no memory is left for a new one.
  static Lease Borrow();
  // Streams decoded with success by every inflater of the process (for
  // tests).
  static std::uint64_t DecodedTotal();

  LibdeflateInflater() = default;
  ~LibdeflateInflater();
  LibdeflateInflater(const LibdeflateInflater&) = delete;
  LibdeflateInflater& operator=(const LibdeflateInflater&) = delete;

  // Decodes the zlib stream at `source` (`size` bytes, trailing bytes
  // allowed) with libdeflate_zlib_decompress_ex into the buffer, with
  // room for `room` bytes (kBufferLimit at most), checking its Adler-32.
  // On success `out` points at the bytes in the buffer (valid until the
  // next call), `produced` tells how many. False when libdeflate refuses
  // the stream or needs more room, and when the decompressor or the
  // buffer cannot be allocated.
  bool Inflate(const std::uint8_t* source, std::size_t size, std::size_t room, const std::uint8_t*& out,
               std::size_t& produced);

  // The same decode straight into `dest` (room for `room` bytes), which
  // libdeflate may write anywhere in, whatever it answers.
  bool InflateInto(const std::uint8_t* source, std::size_t size, std::uint8_t* dest, std::size_t room,
                   std::size_t& produced);

  // Whether the decompressor has been made (for tests).
  bool HasDecompressor() const { return decompressor_ != nullptr; }
  // Bytes the buffer holds now (for tests).
  std::size_t Capacity() const { return capacity_; }
  // Streams this inflater decoded with success (for tests).
  std::uint64_t Decoded() const { return decoded_; }

 private:
  bool Reserve(std::size_t bytes);

  libdeflate_decompressor* decompressor_ = nullptr;
  std::uint8_t* buffer_ = nullptr;
  std::size_t capacity_ = 0;
  std::uint64_t decoded_ = 0;
};

}  // namespace Tovrel

#endif
