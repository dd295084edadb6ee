#include "effectcache/EffectCompression.h"

#include <zlib.h>

#include <cstring>

#include "effectcache/DeflateHeaderScan.h"
#include "effectcache/LibdeflateInflater.h"

namespace Tovrel {

int EffectCompression::CompressEffect(std::uint8_t* dest, std::uint64_t& destLen, const std::uint8_t* source,
                                      std::uint64_t sourceLen, int level) {
  z_stream stream = {};
  stream.next_in = const_cast<Bytef*>(source);
  stream.avail_in = static_cast<uInt>(sourceLen);
  stream.next_out = dest;
  stream.avail_out = static_cast<uInt>(destLen);
  stream.zalloc = nullptr;
  stream.zfree = nullptr;
  stream.opaque = nullptr;
  if (stream.avail_out != destLen || stream.avail_in != sourceLen) return kBufferError;

  const int init = deflateInit_(&stream, ClampLevel(level), ZLIB_VERSION, static_cast<int>(sizeof(z_stream)));
  if (init != Z_OK) return init;
  const int result = deflate(&stream, Z_FINISH);
  if (result != Z_STREAM_END) {
    deflateEnd(&stream);
    return result == Z_OK ? kBufferError : result;
  }
  destLen = stream.total_out;
  return deflateEnd(&stream);
}

namespace {

// The zlib header that compress2 writes (deflate, 32 KiB window, no
// dictionary), and the four bytes of the Adler-32 trailer.
constexpr std::uint8_t kMethodAndWindow = 0x78;
constexpr std::uint8_t kPresetDictionary = 0x20;
constexpr std::uint64_t kHeaderBytes = 2;
constexpr std::uint64_t kTrailerBytes = 4;

// The stream decoded by libdeflate, into dest only when it is one that
// uncompress takes, with the same bytes; false, dest untouched, for
// anything else, which is left to uncompress itself so that every outcome,
// and every status, is zlib's.
//
// What is taken: a header as compress2 writes it (0x78, no dictionary,
// its check right: deflate with the 32 KiB window, the largest, under
// which zlib refuses no distance the format can code, and no dictionary
// for zlib to ask for); deflate data whose block headers DeflateHeaderScan
// finds strict (libdeflate and zlib then decode the blocks alike, refuse
// alike, and end them at the same bit); and a successful decode into at
// most destLen bytes (fewer are a success, as for uncompress), the
// Adler-32 of the bytes equal to the four bytes after the deflate data, as
// libdeflate checks. Bytes past those four are ignored, as uncompress
// ignores them. Room of no bytes goes to uncompress, which decodes into a
// byte of its own then.
bool LibdeflateTakes(std::uint64_t destLen, const std::uint8_t* source, std::uint64_t sourceLen) {
  if (sourceLen < kHeaderBytes + kTrailerBytes || destLen == 0 || source[0] != kMethodAndWindow ||
      (source[1] & kPresetDictionary) != 0 || (source[0] * 256u + source[1]) % 31 != 0) {
    return false;
  }
  const auto size = static_cast<std::size_t>(sourceLen);
  return DeflateHeaderScan::Strict(source + kHeaderBytes, size - kHeaderBytes - kTrailerBytes);
}

bool DecodedByLibdeflate(std::uint8_t* dest, std::uint64_t& destLen, const std::uint8_t* source,
                         std::uint64_t sourceLen) {
  if (!LibdeflateTakes(destLen, source, sourceLen)) return false;
  const std::uint8_t* bytes = nullptr;
  std::size_t produced = 0;
  const LibdeflateInflater::Lease inflater = LibdeflateInflater::Borrow();
  if (inflater.Get() == nullptr || !inflater->Inflate(source, static_cast<std::size_t>(sourceLen),
                                                      static_cast<std::size_t>(destLen), bytes, produced)) {
    return false;
  }
  if (produced != 0) std::memcpy(dest, bytes, produced);
  destLen = produced;
  return true;
}

}  // namespace

int EffectCompression::DecompressEffect(std::uint8_t* dest, std::uint64_t& destLen, const std::uint8_t* source,
                                        std::uint64_t sourceLen) {
  uLongf length = static_cast<uLongf>(destLen);
  if (length != destLen || static_cast<uLong>(sourceLen) != sourceLen) return kBufferError;
  if (DecodedByLibdeflate(dest, destLen, source, sourceLen)) return kOk;
  const int result = uncompress(dest, &length, source, static_cast<uLong>(sourceLen));
  destLen = length;
  return result;
}

int EffectCompression::DecompressEffectDirect(std::uint8_t* dest, std::uint64_t& destLen, const std::uint8_t* source,
                                              std::uint64_t sourceLen) {
  uLongf length = static_cast<uLongf>(destLen);
  if (length != destLen || static_cast<uLong>(sourceLen) != sourceLen) return kBufferError;
  std::size_t produced = 0;
  if (LibdeflateTakes(destLen, source, sourceLen)) {
    const LibdeflateInflater::Lease inflater = LibdeflateInflater::Borrow();
    if (inflater.Get() != nullptr && inflater->InflateInto(source, static_cast<std::size_t>(sourceLen), dest,
                                                           static_cast<std::size_t>(destLen), produced)) {
      destLen = produced;
      return kOk;
    }
  }
  const int result = uncompress(dest, &length, source, static_cast<uLong>(sourceLen));
  destLen = length;
  return result;
}

}  // namespace Tovrel
