#include "effectcache/EffectIndex.h"

#include <cassert>

#include "host/Tab.h"
#include "streams/StreamTransfer.h"

namespace Tovrel {

bool EffectIndex::ReadEntry(RefPtr<IDataStream>& stream, std::string& name, EffectRecord& record) {
  std::uint8_t bytes[EffectRecord::kSize];
  if (!StreamTransfer::ReadExact(stream, bytes, sizeof bytes)) return false;
  const EffectRecord read = EffectRecord::Decode(bytes);
  if (read.nameLength < 1 || read.nameLength > kNameSizeLimit || read.uncompressedSize < 1 ||
      read.uncompressedSize > kEffectSizeLimit) {
    return false;
  }
  Tab<unsigned char> text;
  if (!StreamTransfer::ReadByteTab(text, stream, kNameSizeLimit)) return false;
  if (static_cast<std::uint64_t>(text.Count()) != read.nameLength) return false;
  name.assign(reinterpret_cast<const char*>(text.Addr(0)), read.nameLength);
  record = read;
  return true;
}

bool EffectIndex::WriteEntry(RefPtr<IDataStream>& stream, const std::string& name, const EffectRecord& record) {
  assert(IsWritable(name, record));
  std::uint8_t bytes[EffectRecord::kSize];
  record.Encode(bytes);
  Tab<unsigned char> text;
  text.Append(static_cast<INT_PTR>(name.size()), reinterpret_cast<const unsigned char*>(name.data()));
  return StreamTransfer::WriteExact(stream, bytes, sizeof bytes) && StreamTransfer::WriteByteTab(text, stream);
}

}  // namespace Tovrel
