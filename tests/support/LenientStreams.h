// LenientStreams: zlib streams that libdeflate decodes and zlib's inflate
// refuses, each with the Adler-32 of what libdeflate makes of it, so that
// libdeflate_zlib_decompress takes it whole. They use every leniency
// libdeflate has over zlib: literal/length symbols 286 and 287 and
// distance symbols 30 and 31 in fixed-code blocks, headers announcing 287
// or more literal/length codes or 31 or more distance codes, a second
// codeword for a code of one, a distance from an empty distance code, a
// code length repeat past the announced lengths. Stateless.
#ifndef TOVREL_TESTS_LENIENTSTREAMS_H
#define TOVREL_TESTS_LENIENTSTREAMS_H

#include <cstdint>
#include <string>
#include <vector>

namespace Tovrel {
namespace Testing {

class LenientStreams {
 public:
  struct Stream {
    std::string name;
    std::vector<std::uint8_t> bytes;     // the zlib stream
    std::vector<std::uint8_t> decoded;   // what libdeflate makes of it
  };
  static std::vector<Stream> All();

  // The zlib stream around raw deflate data, its trailer the Adler-32 of
  // what libdeflate decodes it to (of nothing when libdeflate refuses it),
  // and that decoding in `decoded`.
  static std::vector<std::uint8_t> Wrap(const std::vector<std::uint8_t>& deflate,
                                        std::vector<std::uint8_t>* decoded = nullptr);
};

}  // namespace Testing
}  // namespace Tovrel

#endif
