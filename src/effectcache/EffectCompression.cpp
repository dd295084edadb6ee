#include "effectcache/EffectCompression.h"

#include <zlib.h>

#include "effectcache/Adler32.h"

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

// The deflate data inflated alone and checked with Adler32; true only for a
// stream that uncompress would take, giving the same bytes. Anything else
// (another header, a damaged or short stream, too little room) is left to
// uncompress itself, so that every outcome, and every status, is zlib's.
bool InflateChecked(std::uint8_t* dest, std::uint64_t& destLen, const std::uint8_t* source,
                    std::uint64_t sourceLen) {
  if (static_cast<uInt>(destLen) != destLen || static_cast<uInt>(sourceLen) != sourceLen) return false;
  if (sourceLen < kHeaderBytes + kTrailerBytes || destLen == 0 || source[0] != kMethodAndWindow ||
      (source[1] & kPresetDictionary) != 0 || (source[0] * 256u + source[1]) % 31 != 0) {
    return false;
  }
  z_stream stream = {};
  if (inflateInit2(&stream, -MAX_WBITS) != Z_OK) return false;
  stream.next_in = const_cast<Bytef*>(source + kHeaderBytes);
  stream.avail_in = static_cast<uInt>(sourceLen - kHeaderBytes);
  stream.next_out = dest;
  stream.avail_out = static_cast<uInt>(destLen);
  const int result = inflate(&stream, Z_FINISH);
  const std::uint64_t produced = stream.total_out;
  const std::uint64_t left = stream.avail_in;
  inflateEnd(&stream);
  if (result != Z_STREAM_END || left < kTrailerBytes) return false;
  const std::uint8_t* trailer = source + sourceLen - left;
  const std::uint32_t expected = static_cast<std::uint32_t>(trailer[0]) << 24 |
                                 static_cast<std::uint32_t>(trailer[1]) << 16 |
                                 static_cast<std::uint32_t>(trailer[2]) << 8 | trailer[3];
  if (Adler32::Update(Adler32::kStart, dest, static_cast<std::size_t>(produced)) != expected) return false;
  destLen = produced;
  return true;
}

}  // namespace

int EffectCompression::DecompressEffect(std::uint8_t* dest, std::uint64_t& destLen, const std::uint8_t* source,
                                        std::uint64_t sourceLen) {
  uLongf length = static_cast<uLongf>(destLen);
  if (length != destLen || static_cast<uLong>(sourceLen) != sourceLen) return kBufferError;
  if (InflateChecked(dest, destLen, source, sourceLen)) return kOk;
  const int result = uncompress(dest, &length, source, static_cast<uLong>(sourceLen));
  destLen = length;
  return result;
}

}  // namespace Tovrel
