#include "effectcache/EffectPayload.h"

#include <new>

#include "effectcache/EffectCompression.h"
#include "effectcache/EffectIndex.h"
#include "pagefile/LittleEndian.h"
#include "streams/StreamTransfer.h"

namespace Tovrel {

std::uint64_t EffectPayload::CompressedSizeLimit() {
  return EffectCompression::CompressBound(EffectIndex::kEffectSizeLimit);
}

EffectPayload::Result EffectPayload::ReadCompressed(IDataStreamSet& package, const EffectRecord& record,
                                                    Tab<unsigned char>& compressed) {
  RefPtr<IDataStream> stream = package.OpenStream(record.streamId);
  if (!stream) return Result::kNoStream;
  const std::uint64_t streamSize = stream->GetSize();
  if (!StreamTransfer::ReadByteTab(compressed, stream, CompressedSizeLimit())) return Result::kUnreadable;
  const auto count = static_cast<std::uint64_t>(compressed.Count());
  if (count != record.compressedSize || streamSize != 8 + count || record.uncompressedSize == 0) {
    return Result::kSizeMismatch;
  }
  return Result::kOk;
}

namespace {

EffectPayload::Result DecompressBytes(const EffectRecord& record, const std::uint8_t* compressed, std::uint64_t size,
                                      Tab<unsigned char>& data) {
  data.SetCount(record.uncompressedSize);
  if (record.uncompressedSize == 0 || size == 0) return EffectPayload::Result::kSizeMismatch;
  std::uint64_t length = record.uncompressedSize;
  const int status = EffectCompression::DecompressEffectDirect(data.Addr(0), length, compressed, size);
  if (status == EffectCompression::kMemoryError) throw std::bad_alloc();  // says nothing of the bytes
  if (status != EffectCompression::kOk) return EffectPayload::Result::kCorrupt;
  return length == record.uncompressedSize ? EffectPayload::Result::kOk : EffectPayload::Result::kLengthMismatch;
}

}  // namespace

EffectPayload::Result EffectPayload::Decompress(const EffectRecord& record, const Tab<unsigned char>& compressed,
                                                Tab<unsigned char>& data) {
  const auto size = static_cast<std::uint64_t>(compressed.Count());
  return DecompressBytes(record, size != 0 ? compressed.Addr(0) : nullptr, size, data);
}

EffectPayload::Result EffectPayload::ReadBlock(IDataStreamSet& package, const EffectRecord& record,
                                               std::vector<std::uint8_t>& block) {
  RefPtr<IDataStream> stream = package.OpenStream(record.streamId);
  if (!stream) return Result::kNoStream;
  const std::uint64_t size = stream->GetSize();
  if (size > 8 + CompressedSizeLimit()) return Result::kUnreadable;
  block.resize(size);
  if (!StreamTransfer::ReadExact(stream, block.data(), size)) return Result::kUnreadable;
  return CheckBlock(record, block);
}

EffectPayload::Result EffectPayload::CheckBlock(const EffectRecord& record, const std::vector<std::uint8_t>& block) {
  if (block.size() < 8) return Result::kUnreadable;
  const std::uint64_t count = LittleEndian::Load64(block.data());
  if (count > CompressedSizeLimit() || count > block.size() - 8) return Result::kUnreadable;
  if (count != record.compressedSize || block.size() != 8 + count || record.uncompressedSize == 0) {
    return Result::kSizeMismatch;
  }
  return Result::kOk;
}

EffectPayload::Result EffectPayload::DecompressBlock(const EffectRecord& record, const std::vector<std::uint8_t>& block,
                                                     Tab<unsigned char>& data) {
  if (block.size() < 8) return Result::kUnreadable;
  return DecompressBytes(record, block.data() + 8, block.size() - 8, data);
}

const char* EffectPayload::Describe(Result result) {
  switch (result) {
    case Result::kOk:
      return "ok";
    case Result::kNoStream:
      return "its stream is missing";
    case Result::kUnreadable:
      return "its stream cannot be read";
    case Result::kSizeMismatch:
      return "its stream's size differs from its record";
    case Result::kCorrupt:
      return "its compressed bytes are damaged";
    case Result::kLengthMismatch:
      return "it decompresses to another size than its record says";
    case Result::kTrouble:
      return "a file call failed while it was read";
  }
  return "unknown";
}

}  // namespace Tovrel
