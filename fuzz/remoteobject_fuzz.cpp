// Fuzzes what a remote store answers: the first byte gives the length of
// the name searched for, the next bytes are that name, the rest is the
// answer. Whatever the answer, Decode refuses it or gives exactly the
// effect its header describes, for exactly that name.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "effectcache/RemoteEffectObject.h"
#include "pagefile/LittleEndian.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::size_t nameLength = data[0] % 64;
  if (size < 1 + nameLength) return 0;
  const std::string name(reinterpret_cast<const char*>(data + 1), nameLength);
  const std::uint8_t* object = data + 1 + nameLength;
  const std::size_t objectSize = size - 1 - nameLength;
  Tab<unsigned char> effect;
  bool permanent = false;
  const auto result = Tovrel::RemoteEffectObject::Decode(object, objectSize, name, &permanent, effect);
  if (result != Tovrel::RemoteEffectObject::Result::kOk) return 0;
  // An answer taken must be what its header says, for the name asked for.
  const std::uint64_t recorded = Tovrel::LittleEndian::Load32(object + 20);
  if (static_cast<std::uint64_t>(effect.Count()) != recorded) std::abort();
  if (Tovrel::LittleEndian::Load32(object + 16) != nameLength) std::abort();
  if (name.compare(0, nameLength, reinterpret_cast<const char*>(object + 28), nameLength) != 0) std::abort();
  return 0;
}
