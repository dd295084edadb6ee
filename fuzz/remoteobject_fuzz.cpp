// Fuzzes what a remote store answers: the first byte gives the length of
// the name searched for, the next bytes are that name, the rest is the
// answer. Whatever the answer, Decode refuses it or gives exactly the
// effect its header describes, for exactly that name. The compressed bytes
// the answer's header points at are decoded by the library as they would
// be (in room for the size the header gives) and in other rooms, and each
// time the status, length and every byte of the buffer must be what zlib's
// uncompress gives: the search's decoder is libdeflate wherever it gives
// the same, which this compares on every input the fuzzer makes. A reader
// with a team key takes only what a reader without one takes, signed.
#include <zlib.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <algorithm>
#include <vector>

#include "effectcache/EffectCompression.h"
#include "effectcache/RemoteEffectObject.h"
#include "pagefile/LittleEndian.h"

namespace {

// Aborts unless DecompressEffect gives what uncompress gives for `source`
// in `room` bytes, the buffer compared whole with 16 bytes past the room;
// and unless DecompressEffectDirect gives the same status and length, and
// on success the same bytes.
void CompareWithUncompress(const std::uint8_t* source, std::size_t size, std::uint64_t room) {
  std::vector<std::uint8_t> theirs(room + 16, 0xEE), ours(room + 16, 0xEE);
  uLongf theirLength = static_cast<uLongf>(room);
  const int theirStatus = uncompress(theirs.data(), &theirLength, source, static_cast<uLong>(size));
  std::uint64_t ourLength = room;
  const int ourStatus = Tovrel::EffectCompression::DecompressEffect(ours.data(), ourLength, source, size);
  if (ourStatus != theirStatus || ourLength != theirLength || ours != theirs) std::abort();
  std::vector<std::uint8_t> direct(room + 16, 0xEE);
  std::uint64_t directLength = room;
  const int directStatus = Tovrel::EffectCompression::DecompressEffectDirect(direct.data(), directLength, source, size);
  if (directStatus != theirStatus || directLength != theirLength) std::abort();
  if (directStatus == Z_OK && !std::equal(theirs.begin(), theirs.begin() + static_cast<std::ptrdiff_t>(theirLength),
                                          direct.begin())) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::size_t nameLength = data[0] % 64;
  if (size < 1 + nameLength) return 0;
  const std::string name(reinterpret_cast<const char*>(data + 1), nameLength);
  const std::uint8_t* object = data + 1 + nameLength;
  const std::size_t objectSize = size - 1 - nameLength;
  // The compressed bytes: after the header and the name the header gives,
  // to the end of the answer.
  constexpr std::size_t kHeader = Tovrel::RemoteEffectObject::kHeaderSize;
  if (objectSize >= kHeader) {
    const std::uint64_t objectName = Tovrel::LittleEndian::Load32(object + 16);
    const std::uint64_t recorded = Tovrel::LittleEndian::Load32(object + 20);
    if (objectName <= objectSize - kHeader && recorded <= (std::uint64_t{1} << 20)) {
      const std::uint8_t* compressed = object + kHeader + objectName;
      const std::size_t compressedSize = objectSize - kHeader - static_cast<std::size_t>(objectName);
      for (std::uint64_t room : {recorded, recorded + 1, recorded / 2, std::uint64_t{0}}) {
        CompareWithUncompress(compressed, compressedSize, room);
      }
    }
  }
  Tab<unsigned char> effect;
  bool permanent = false;
  const auto result = Tovrel::RemoteEffectObject::Decode(object, objectSize, name, &permanent, effect);
  // A reader with a team key takes less than one without: only signed
  // objects that one would take too.
  static const std::vector<std::uint8_t> kKey(32, 0x5A);
  Tab<unsigned char> keyed;
  const auto signedResult = Tovrel::RemoteEffectObject::Decode(object, objectSize, name, nullptr, keyed, &kKey);
  if (signedResult == Tovrel::RemoteEffectObject::Result::kOk &&
      (result != Tovrel::RemoteEffectObject::Result::kOk ||
       (Tovrel::LittleEndian::Load32(object + 12) & Tovrel::RemoteEffectObject::kSignedFlag) == 0)) {
    std::abort();
  }
  if (result != Tovrel::RemoteEffectObject::Result::kOk) return 0;
  // An answer taken must be what its header says, for the name asked for.
  const std::uint64_t recorded = Tovrel::LittleEndian::Load32(object + 20);
  if (static_cast<std::uint64_t>(effect.Count()) != recorded) std::abort();
  if (Tovrel::LittleEndian::Load32(object + 16) != nameLength) std::abort();
  if (name.compare(0, nameLength, reinterpret_cast<const char*>(object + 28), nameLength) != 0) std::abort();
  return 0;
}
