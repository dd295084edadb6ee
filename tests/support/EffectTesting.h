// EffectTesting: helpers for tests of the effect cache: effect bytes shaped
// like shader code or random, and direct looks into (and patches of) a
// cache file through the package interface.
#ifndef TOVREL_TESTS_EFFECTTESTING_H
#define TOVREL_TESTS_EFFECTTESTING_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "effectcache/EffectCacheHeader.h"
#include "effectcache/EffectCacheStats.h"
#include "effectcache/EffectRecord.h"
#include "host/Tab.h"

namespace Tovrel {
namespace Testing {

class EffectTesting {
 public:
  // Seeded bytes: compressible ones look like shader bytecode (about 3:1 at
  // level 2), the others are random.
  static std::vector<unsigned char> Bytes(std::uint32_t seed, std::size_t size, bool compressible);
  static std::vector<unsigned char> ToVector(const Tab<unsigned char>& tab);
  // The bytes as the cache compresses an effect (zlib, level 2).
  static std::vector<std::uint8_t> Compressed(const std::vector<unsigned char>& bytes);
  // Bytes that follow from an effect's UTF-8 name alone (2,000 to 32,000 of
  // them, most compressible), so that any process can tell whether what it
  // found is what was stored under that name.
  static std::vector<unsigned char> BytesNamedBy(const std::string& utf8Name);

  struct FileShape {
    EffectCacheHeader header;
    std::uint64_t indexSize;
    std::uint64_t streams;
    std::uint64_t totalStreamSize;
  };
  // Reads the header block and the index of a cache file (not in use).
  static FileShape Shape(const std::wstring& file);
  static std::map<std::string, EffectRecord> ReadIndex(const std::wstring& file);
  // Names in the order the index holds them.
  static std::vector<std::string> IndexNames(const std::wstring& file);

  // Rewrites one record of the index, or the header, of a cache file.
  static void PatchRecord(const std::wstring& file, const std::string& name,
                          const std::function<void(EffectRecord&)>& change);
  static void PatchHeader(const std::wstring& file, const std::function<void(EffectCacheHeader&)>& change);
  // Overwrites bytes in the middle of an effect's compressed data, so that
  // they no longer decompress.
  // Rewrites the index stream with its entries in reverse order (names
  // and records unchanged): an index out of the order the cache writes.
  static void ReverseIndex(const std::wstring& file);
  // The file's hit statistics block; false when it has none.
  static bool ReadStats(const std::wstring& file, EffectCacheStats& out);
  static void DamageEffectBytes(const std::wstring& file, const std::string& name);
};

}  // namespace Testing
}  // namespace Tovrel

#endif
