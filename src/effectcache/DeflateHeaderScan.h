// DeflateHeaderScan: whether a deflate stream is one that libdeflate and
// zlib's inflate are bound to decode alike, told from its block headers
// alone, before either decoder runs.
//
// libdeflate takes some streams that zlib refuses: it accepts codes that
// are empty or hold one codeword (and then lets both one-bit codewords
// stand for its symbol), a precode of one codeword, 287 and 288
// literal/length codes and 31 and 32 distance codes, code length repeats
// that run past the lengths the header announced; it decodes the
// literal/length symbols 286 and 287 as a match of 258 bytes and the
// distance symbols 30 and 31 as distances of 24577 and more. zlib refuses
// every one of these. None of them can occur in a block whose header zlib
// accepts with complete codes: every codeword of a complete code stands
// for a symbol the header gave a length, and such a header gives none to
// the symbols zlib refuses. What is left for either decoder to refuse
// inside such a block (a distance before the first byte, input that ends
// too soon, too little room) both refuse alike.
//
// A later block's header lies where the block before it ends, which only
// decoding that block tells, except after a stored block, whose length is
// in its header. So Strict walks stored blocks and accepts a stream whose
// last block is stored, or has dynamic codes with such a header; a stream
// with a fixed-code block (whose codes hold the symbols zlib refuses), or
// a dynamic block before the last, is not accepted. zlib's deflate writes
// complete codes, and ends a block after 16383 literals and matches: what
// it writes of fewer is one block, dynamic, stored or (mostly for short
// input) fixed. Stateless; safe from any thread.
#ifndef TOVREL_EFFECTCACHE_DEFLATEHEADERSCAN_H
#define TOVREL_EFFECTCACHE_DEFLATEHEADERSCAN_H

#include <cstddef>
#include <cstdint>

namespace Tovrel {

class DeflateHeaderScan {
 public:
  // True when the deflate data at `data` (`size` bytes, trailing bytes
  // allowed) is made of stored blocks and one last block that is stored
  // or has dynamic codes, every header read within `size` bytes and one
  // that zlib's inflate accepts, the dynamic codes complete. False for
  // anything else, including headers cut short.
  static bool Strict(const std::uint8_t* data, std::size_t size);
};

}  // namespace Tovrel

#endif
