// ObjectName: fits the name of a named kernel object into a system's limit.
//
// A name that is too long keeps its first 200 bytes and gets '_' and the 16
// lower-case hex digits of the 64-bit FNV-1a hash of the whole name, so two
// long names that differ anywhere, even in their last byte, stay apart.
// Stateless; safe from any thread.
#ifndef TOVREL_PLATFORM_OBJECTNAME_H
#define TOVREL_PLATFORM_OBJECTNAME_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace Tovrel {

class ObjectName {
 public:
  // Bytes of the name kept in front of the hash when a name is shortened.
  static constexpr std::size_t kKeptBytes = 200;

  // 64-bit FNV-1a hash of the bytes.
  static std::uint64_t Fnv1a64(const std::string& bytes);

  // `name` itself when it has at most `limit` bytes, else the shortened form
  // (217 bytes). `limit` must be at least 217.
  static std::string Shorten(const std::string& name, std::size_t limit);
};

}  // namespace Tovrel

#endif
