// EffectPayload: one stored effect's stream, read back and decompressed.
//
// An effect's stream holds its compressed bytes as one length-prefixed
// byte block: 8 bytes of length, then a zlib stream. ReadCompressed takes
// the block out of the stream and checks it against the effect's record;
// Decompress turns it into exactly the record's uncompressed size. Each
// answers why it failed, so that a caller that only wants the effect
// checks for kOk, and one that checks a file can name the damage.
// Stateless; thread-safety as the package.
#ifndef TOVREL_EFFECTCACHE_EFFECTPAYLOAD_H
#define TOVREL_EFFECTCACHE_EFFECTPAYLOAD_H

#include <cstdint>
#include <vector>

#include "effectcache/EffectRecord.h"
#include "host/Tab.h"
#include "tovrel/IDataStreamSet.h"

namespace Tovrel {

class EffectPayload {
 public:
  enum class Result {
    kOk,
    kNoStream,          // the record's stream does not exist or cannot be opened
    kUnreadable,        // the stream does not hold a byte block it can give back
    kSizeMismatch,      // block or stream size differ from the record
    kCorrupt,           // the zlib stream is damaged
    kLengthMismatch,    // it decompresses to another size than the record's
    kTrouble,           // a file call failed while it was read: nothing is proven of the bytes
  };

  // The largest compressed effect: the compress bound of a 1 MiB effect.
  static std::uint64_t CompressedSizeLimit();

  // Reads the record's compressed bytes into `compressed`. Exceptions of a
  // damaged package (a tail outside its child file, say) pass through.
  static Result ReadCompressed(IDataStreamSet& package, const EffectRecord& record, Tab<unsigned char>& compressed);
  // Decompresses into `data`, whose count becomes the record's size
  // whatever the outcome. std::bad_alloc when the decoder has no memory
  // (which says nothing of the bytes).
  static Result Decompress(const EffectRecord& record, const Tab<unsigned char>& compressed, Tab<unsigned char>& data);

  // The same for a whole stream held as it is stored (`block`: the 8-byte
  // length, then the compressed bytes), read through the package or
  // straight from the file (DirectStreamReader): ReadBlock reads it,
  // CheckBlock checks it against the record, DecompressBlock decompresses
  // a checked block.
  static Result ReadBlock(IDataStreamSet& package, const EffectRecord& record, std::vector<std::uint8_t>& block);
  static Result CheckBlock(const EffectRecord& record, const std::vector<std::uint8_t>& block);
  static Result DecompressBlock(const EffectRecord& record, const std::vector<std::uint8_t>& block,
                                Tab<unsigned char>& data);

  // A few words on a result, for messages: "stream missing", ...
  static const char* Describe(Result result);
};

}  // namespace Tovrel

#endif
