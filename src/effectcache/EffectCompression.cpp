#include "effectcache/EffectCompression.h"

#include <zlib.h>

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

int EffectCompression::DecompressEffect(std::uint8_t* dest, std::uint64_t& destLen, const std::uint8_t* source,
                                        std::uint64_t sourceLen) {
  uLongf length = static_cast<uLongf>(destLen);
  if (length != destLen || static_cast<uLong>(sourceLen) != sourceLen) return kBufferError;
  const int result = uncompress(dest, &length, source, static_cast<uLong>(sourceLen));
  destLen = length;
  return result;
}

}  // namespace Tovrel
