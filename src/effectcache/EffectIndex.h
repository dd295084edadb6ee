// EffectIndex: the entries of a cache file's index stream.
//
// Each entry is an EffectRecord (44 bytes), then the effect's UTF-8 name as
// a length-prefixed byte block. An entry is written only when its name is
// not empty and the record's nameLength equals the name's byte count; an
// entry is read only when its name length and uncompressed size lie in
// their ranges and the name has the length its record says. The cache
// itself and the tool that inspects cache files read and write entries
// only through here. Stateless; thread-safety as the stream.
#ifndef TOVREL_EFFECTCACHE_EFFECTINDEX_H
#define TOVREL_EFFECTCACHE_EFFECTINDEX_H

#include <cstdint>
#include <string>

#include "effectcache/EffectRecord.h"
#include "effectcache/EffectTable.h"
#include "host/RefPtr.h"
#include "tovrel/IDataStream.h"

namespace Tovrel {

class EffectIndex {
 public:
  static constexpr std::uint64_t kNameSizeLimit = 65536;
  static constexpr std::uint64_t kEffectSizeLimit = 1048576;

  // True when an entry of that name and record can be written.
  static bool IsWritable(const std::string& name, const EffectRecord& record) {
    return !name.empty() && record.nameLength == name.size();
  }
  // Bytes the entry takes in the index stream.
  static std::uint64_t EntrySize(const std::string& name) { return EffectRecord::kSize + 8 + name.size(); }

  // Reads the entry at the stream's position. False, with the stream
  // dropped (see StreamTransfer) when the read itself failed, for a short
  // stream or a record out of range.
  static bool ReadEntry(RefPtr<IDataStream>& stream, std::string& name, EffectRecord& record);
  // Decodes the entry at the start of bytes[0, available) with the same
  // checks as ReadEntry; on success `used` is the entry's size. False when
  // the bytes end within the entry or its record is out of range.
  static bool DecodeEntry(const std::uint8_t* bytes, std::uint64_t available, std::uint64_t& used,
                          std::string& name, EffectRecord& record);
  // Reads a whole index of `count` entries from `stream` into `table`
  // (cleared first), in one read decoded from memory, with ReadEntry's
  // checks on every entry, in O(n log n) whatever the entries' order.
  // Nothing is allocated for more than `mostBytes` (what the file holds):
  // a stream that claims more is refused unread. False when a read or an
  // entry fails.
  static bool ReadAll(RefPtr<IDataStream>& stream, std::uint64_t count, std::uint64_t mostBytes, EffectTable& table);
  // Writes one entry at the stream's position; false (stream dropped) when
  // the stream takes fewer bytes.
  static bool WriteEntry(RefPtr<IDataStream>& stream, const std::string& name, const EffectRecord& record);
};

}  // namespace Tovrel

#endif
