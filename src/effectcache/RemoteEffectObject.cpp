#include "effectcache/RemoteEffectObject.h"

#include <cstring>

#include "effectcache/EffectCacheImpl.h"
#include "effectcache/EffectPayload.h"
#include "effectcache/EffectRecord.h"
#include "pagefile/LittleEndian.h"
#include "platform/HmacSha256.h"

namespace Tovrel {

namespace {

constexpr char kTag[8] = {'T', 'V', 'R', 'L', 'F', 'X', 'O', 'B'};

std::uint64_t Fnv1a(const std::string& bytes, std::uint64_t basis) {
  std::uint64_t hash = basis;
  for (unsigned char c : bytes) {
    hash ^= c;
    hash *= 0x100000001B3ULL;
  }
  return hash;
}

// The finaliser of splitmix64: every bit of the result depends on every
// bit of the hash, so that the leading digits spread keys over folders.
std::uint64_t Mix(std::uint64_t x) {
  x ^= x >> 30;
  x *= 0xBF58476D1CE4E5B9ULL;
  x ^= x >> 27;
  x *= 0x94D049BB133111EBULL;
  return x ^ (x >> 31);
}

void AppendHex(std::string& out, std::uint64_t value) {
  static const char kDigits[] = "0123456789abcdef";
  for (int shift = 60; shift >= 0; shift -= 4) out.push_back(kDigits[(value >> shift) & 0xF]);
}

bool HasKey(const std::vector<std::uint8_t>* key) { return key != nullptr && !key->empty(); }

}  // namespace

std::uint64_t RemoteEffectObject::SizeLimit() {
  return kHeaderSize + EffectCacheImpl::kEffectNameSizeLimit + EffectPayload::CompressedSizeLimit() + kMacSize;
}

std::vector<std::uint8_t> RemoteEffectObject::Encode(const std::string& name, bool permanent,
                                                     std::uint64_t uncompressedSize, const std::uint8_t* compressed,
                                                     std::uint64_t compressedSize,
                                                     const std::vector<std::uint8_t>* key) {
  const std::size_t signedSize = kHeaderSize + name.size() + compressedSize;
  std::vector<std::uint8_t> object(signedSize + (HasKey(key) ? kMacSize : 0));
  std::memcpy(object.data(), kTag, sizeof kTag);
  LittleEndian::Store32(object.data() + 8, kVersion);
  LittleEndian::Store32(object.data() + 12, (permanent ? kPermanentFlag : 0) | (HasKey(key) ? kSignedFlag : 0));
  LittleEndian::Store32(object.data() + 16, static_cast<std::uint32_t>(name.size()));
  LittleEndian::Store32(object.data() + 20, static_cast<std::uint32_t>(uncompressedSize));
  LittleEndian::Store32(object.data() + kCompressedSizeOffset, static_cast<std::uint32_t>(compressedSize));
  if (!name.empty()) std::memcpy(object.data() + kHeaderSize, name.data(), name.size());
  if (compressedSize != 0) std::memcpy(object.data() + kHeaderSize + name.size(), compressed, compressedSize);
  if (HasKey(key) &&
      !HmacSha256::Compute(key->data(), key->size(), object.data(), signedSize, object.data() + signedSize)) {
    return std::vector<std::uint8_t>();
  }
  return object;
}

RemoteEffectObject::Result RemoteEffectObject::Decode(const std::uint8_t* bytes, std::size_t size,
                                                      const std::string& name, bool* permanent,
                                                      Tab<unsigned char>& data,
                                                      const std::vector<std::uint8_t>* key) {
  if (bytes == nullptr || size < kHeaderSize) return Result::kShort;
  if (std::memcmp(bytes, kTag, sizeof kTag) != 0) return Result::kTag;
  if (LittleEndian::Load32(bytes + 8) != kVersion) return Result::kVersion;
  const std::uint32_t flags = LittleEndian::Load32(bytes + 12);
  if ((flags & ~(kPermanentFlag | kSignedFlag)) != 0) return Result::kFlags;
  const std::uint64_t macSize = (flags & kSignedFlag) != 0 ? kMacSize : 0;
  const std::uint64_t nameLength = LittleEndian::Load32(bytes + 16);
  const std::uint64_t uncompressed = LittleEndian::Load32(bytes + 20);
  const std::uint64_t compressedSize = LittleEndian::Load32(bytes + kCompressedSizeOffset);
  if (nameLength != name.size()) return Result::kName;
  if (uncompressed == 0 || uncompressed > EffectCacheImpl::kEffectSizeLimit || compressedSize == 0 ||
      compressedSize > EffectPayload::CompressedSizeLimit()) {
    return Result::kSize;
  }
  if (size < kHeaderSize + nameLength) return Result::kShort;
  if (name.compare(0, name.size(), reinterpret_cast<const char*>(bytes + kHeaderSize), nameLength) != 0) {
    return Result::kName;
  }
  const std::uint64_t signedSize = kHeaderSize + nameLength + compressedSize;
  if (size < signedSize + macSize) return Result::kShort;
  if (size != signedSize + macSize) return Result::kSize;
  if (HasKey(key)) {
    if (macSize == 0) return Result::kUnsigned;
    std::uint8_t mac[kMacSize];
    if (!HmacSha256::Compute(key->data(), key->size(), bytes, signedSize, mac) ||
        !HmacSha256::Same(mac, bytes + signedSize)) {
      return Result::kSignature;
    }
  }
  Tab<unsigned char> compressed;
  compressed.Append(static_cast<INT_PTR>(compressedSize), bytes + kHeaderSize + nameLength);
  EffectRecord record{};
  record.uncompressedSize = static_cast<std::uint32_t>(uncompressed);
  record.compressedSize = static_cast<std::uint32_t>(compressedSize);
  if (EffectPayload::Decompress(record, compressed, data) != EffectPayload::Result::kOk) {
    data.ZeroCount();
    return Result::kCorrupt;
  }
  if (permanent != nullptr) *permanent = (flags & kPermanentFlag) != 0;
  return Result::kOk;
}

std::string RemoteEffectObject::NameIn(const std::uint8_t* bytes, std::size_t size) {
  if (bytes == nullptr || size < kHeaderSize || std::memcmp(bytes, kTag, sizeof kTag) != 0) return std::string();
  const std::uint64_t length = LittleEndian::Load32(bytes + 16);
  if (length > EffectCacheImpl::kEffectNameSizeLimit || size - kHeaderSize < length) return std::string();
  return std::string(reinterpret_cast<const char*>(bytes + kHeaderSize), length);
}

std::string RemoteEffectObject::KeyFor(const std::string& name) {
  std::string hex;
  AppendHex(hex, Mix(Fnv1a(name, 0xCBF29CE484222325ULL)));
  AppendHex(hex, Mix(Fnv1a(name, 0x84222325CBF29CE4ULL)));
  return hex.substr(0, 2) + "/" + hex.substr(2, 2) + "/" + hex;
}

}  // namespace Tovrel
