// LittleEndian: the one set of encoders and decoders for the package file's
// numbers. Every field of the file is an unsigned little-endian integer;
// every reader and writer of the format goes through these. Stateless.
#ifndef TOVREL_PAGEFILE_LITTLEENDIAN_H
#define TOVREL_PAGEFILE_LITTLEENDIAN_H

#include <cstdint>

namespace Tovrel {

class LittleEndian {
 public:
  static std::uint64_t Load64(const std::uint8_t* bytes) {
    std::uint64_t value = 0;
    for (int i = 7; i >= 0; --i) value = (value << 8) | bytes[i];
    return value;
  }
  static void Store64(std::uint8_t* bytes, std::uint64_t value) {
    for (int i = 0; i < 8; ++i) bytes[i] = static_cast<std::uint8_t>(value >> (8 * i));
  }
  static std::uint16_t Load16(const std::uint8_t* bytes) {
    return static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8);
  }
  static void Store16(std::uint8_t* bytes, std::uint16_t value) {
    bytes[0] = static_cast<std::uint8_t>(value);
    bytes[1] = static_cast<std::uint8_t>(value >> 8);
  }
  static std::uint32_t Load32(const std::uint8_t* bytes) {
    std::uint32_t value = 0;
    for (int i = 3; i >= 0; --i) value = (value << 8) | bytes[i];
    return value;
  }
  static void Store32(std::uint8_t* bytes, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) bytes[i] = static_cast<std::uint8_t>(value >> (8 * i));
  }
};

}  // namespace Tovrel

#endif
