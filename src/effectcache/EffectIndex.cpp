#include "effectcache/EffectIndex.h"

#include <algorithm>
#include <cassert>
#include <memory>
#include <utility>

#include "host/Tab.h"
#include "pagefile/LittleEndian.h"
#include "streams/StreamTransfer.h"

namespace Tovrel {

namespace {

bool InRange(const EffectRecord& record) {
  return record.nameLength >= 1 && record.nameLength <= EffectIndex::kNameSizeLimit &&
         record.uncompressedSize >= 1 && record.uncompressedSize <= EffectIndex::kEffectSizeLimit;
}

}  // namespace

bool EffectIndex::DecodeEntry(const std::uint8_t* bytes, std::uint64_t available, std::uint64_t& used,
                              std::string& name, EffectRecord& record) {
  if (available < EffectRecord::kSize + 8) return false;
  const EffectRecord read = EffectRecord::Decode(bytes);
  if (!InRange(read)) return false;
  const std::uint64_t length = LittleEndian::Load64(bytes + EffectRecord::kSize);
  if (length != read.nameLength || available - EffectRecord::kSize - 8 < length) return false;
  name.assign(reinterpret_cast<const char*>(bytes + EffectRecord::kSize + 8), static_cast<std::size_t>(length));
  record = read;
  used = EffectRecord::kSize + 8 + length;
  return true;
}

bool EffectIndex::ReadEntry(RefPtr<IDataStream>& stream, std::string& name, EffectRecord& record) {
  std::uint8_t bytes[EffectRecord::kSize];
  if (!StreamTransfer::ReadExact(stream, bytes, sizeof bytes)) return false;
  const EffectRecord read = EffectRecord::Decode(bytes);
  if (!InRange(read)) return false;
  Tab<unsigned char> text;
  if (!StreamTransfer::ReadByteTab(text, stream, kNameSizeLimit)) return false;
  if (static_cast<std::uint64_t>(text.Count()) != read.nameLength) return false;
  name.assign(reinterpret_cast<const char*>(text.Addr(0)), read.nameLength);
  record = read;
  return true;
}

bool EffectIndex::ReadAll(RefPtr<IDataStream>& stream, std::uint64_t count, std::uint64_t mostBytes,
                          EffectTable& table) {
  table.Clear();
  if (!stream) return false;
  // Only as many bytes as `count` entries can take are read.
  const std::uint64_t most = count * (EffectRecord::kSize + 8 + kNameSizeLimit);
  const std::uint64_t wanted = std::min(stream->GetSize(), most);
  if (wanted > mostBytes) return false;
  const auto size = static_cast<std::size_t>(wanted);
  std::unique_ptr<std::uint8_t[]> bytes(new std::uint8_t[size]);  // no zeroing: every byte is read
  // An index of no entries reads nothing (its one byte is never looked at).
  if (size != 0 && !StreamTransfer::ReadExact(stream, bytes.get(), size)) return false;
  // No more entries than the bytes read can hold: a count in the header
  // reserves nothing that is not there.
  std::vector<EffectTable::Entry> entries;
  entries.reserve(static_cast<std::size_t>(std::min<std::uint64_t>(count, size / (EffectRecord::kSize + 8 + 1))));
  std::uint64_t at = 0;
  for (std::uint64_t i = 0; i < count; ++i) {
    EffectTable::Entry entry;
    std::uint64_t used = 0;
    if (!DecodeEntry(bytes.get() + at, size - at, used, entry.name, entry.record)) return false;
    at += used;
    entries.push_back(std::move(entry));
  }
  table.Load(std::move(entries));
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
