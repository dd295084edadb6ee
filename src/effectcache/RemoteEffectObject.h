// RemoteEffectObject: one effect as a remote store keeps it, and the key
// it is kept under.
//
// An object is a 28-byte header, the effect's name, then its compressed
// bytes exactly as the cache file stores them (a zlib stream), and for a
// signed object the 32-byte HMAC-SHA256 of all that under the team key.
// Header, little-endian: the tag "TVRLFXOB" (8 bytes), the version (4
// bytes, 1), flags (4 bytes; bit 0: permanent, bit 1: signed, every other
// bit 0), the name's length in bytes (4), the uncompressed size (4), the
// compressed size (4). The object's length is exactly header + name +
// compressed size (+ 32 when signed).
//
// A reader with a team key accepts only objects signed with that key, and
// checks the MAC before anything is decompressed; a reader without one
// takes signed objects as unsigned ones (the MAC is not checked).
//
// A remote store is not trusted: Decode refuses an object whose tag,
// version or flags are not these, whose name is not the one searched for,
// whose sizes break the cache's limits or disagree with its length, or
// whose bytes do not decompress to exactly the recorded size; it never
// allocates more than the limits allow. The key is derived from the name
// alone (two 64-bit FNV-1a hashes, each mixed by splitmix64's finaliser,
// 32 hex digits) and spread over folders
// ("ab/cd/abcd…"), so that any WebDAV-style server keeps objects as plain
// files; two names sharing a key only miss, never swap bytes.
//
// Stateless; every function may be called from any thread.
#ifndef TOVREL_EFFECTCACHE_REMOTEEFFECTOBJECT_H
#define TOVREL_EFFECTCACHE_REMOTEEFFECTOBJECT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "host/Tab.h"

namespace Tovrel {

class RemoteEffectObject {
 public:
  static constexpr std::size_t kHeaderSize = 28;
  static constexpr std::uint32_t kVersion = 1;
  static constexpr std::uint32_t kPermanentFlag = 1;
  static constexpr std::uint32_t kSignedFlag = 2;
  static constexpr std::size_t kMacSize = 32;
  // Where the header keeps the compressed size.
  static constexpr std::size_t kCompressedSizeOffset = 24;

  enum class Result {
    kOk,
    kShort,          // fewer bytes than a header, or than the header says
    kTag,            // another tag: not an effect object
    kVersion,        // a version this library does not read
    kFlags,          // flags it does not know
    kName,           // another name than the one searched for
    kSize,           // sizes beyond the cache's limits, or not the object's length
    kCorrupt,        // the bytes do not decompress to exactly the recorded size
    kUnsigned,       // a reader with a team key met an object without a MAC
    kSignature,      // the MAC is not the team key's (or no MAC can be computed here)
  };

  // The longest object Decode can accept: header, longest name, compress
  // bound of the largest effect, MAC.
  static std::uint64_t SizeLimit();

  // The object of an effect; `compressed` is its zlib stream. Signed when
  // `key` is given and not empty; empty when it cannot be signed here.
  static std::vector<std::uint8_t> Encode(const std::string& name, bool permanent, std::uint64_t uncompressedSize,
                                          const std::uint8_t* compressed, std::uint64_t compressedSize,
                                          const std::vector<std::uint8_t>* key = nullptr);
  // Checks the object against `name` (and, with a non-empty `key`, its
  // MAC) and decompresses it into `data`; `permanent` is set on success
  // only.
  static Result Decode(const std::uint8_t* bytes, std::size_t size, const std::string& name, bool* permanent,
                       Tab<unsigned char>& data, const std::vector<std::uint8_t>* key = nullptr);
  // The name an object says it holds (not yet checked otherwise); empty
  // when its header is not whole or the name is longer than allowed.
  static std::string NameIn(const std::uint8_t* bytes, std::size_t size);
  // The object's key: a relative path such as "3f/a9/3fa9…" (38 characters).
  static std::string KeyFor(const std::string& name);
};

}  // namespace Tovrel

#endif
