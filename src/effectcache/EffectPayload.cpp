#include "effectcache/EffectPayload.h"

#include <new>

#include "effectcache/EffectCompression.h"
#include "effectcache/EffectIndex.h"
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

EffectPayload::Result EffectPayload::Decompress(const EffectRecord& record, const Tab<unsigned char>& compressed,
                                                Tab<unsigned char>& data) {
  data.SetCount(record.uncompressedSize);
  if (record.uncompressedSize == 0 || compressed.Count() == 0) return Result::kSizeMismatch;
  std::uint64_t length = record.uncompressedSize;
  const int status = EffectCompression::DecompressEffect(data.Addr(0), length, compressed.Addr(0),
                                                         static_cast<std::uint64_t>(compressed.Count()));
  if (status == EffectCompression::kMemoryError) throw std::bad_alloc();  // says nothing of the bytes
  if (status != EffectCompression::kOk) return Result::kCorrupt;
  return length == record.uncompressedSize ? Result::kOk : Result::kLengthMismatch;
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
