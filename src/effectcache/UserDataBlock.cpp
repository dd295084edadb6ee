#include "effectcache/UserDataBlock.h"

#include <cstring>

#include "pagefile/LittleEndian.h"

namespace Tovrel {

std::uint64_t UserDataBlock::Find(const std::uint8_t* userData, std::uint64_t size, std::uint32_t tag) {
  if (userData == nullptr || size < kHeadSize) return kNotFound;
  std::uint64_t at = 0;
  std::uint64_t length = LittleEndian::Load32(userData + 4);
  if (length + kHeadSize > size) return kNotFound;
  while (LittleEndian::Load32(userData + at) != tag) {
    at += kHeadSize + length;
    if (at + kHeadSize > size) return kNotFound;
    length = LittleEndian::Load32(userData + at + 4);
    if (at + kHeadSize + length > size) return kNotFound;
  }
  return at;
}

std::uint64_t UserDataBlock::PayloadSize(const std::uint8_t* userData, std::uint64_t at) {
  return LittleEndian::Load32(userData + at + 4);
}

std::uint8_t* UserDataBlock::Ensure(IDataStreamSet& package, std::uint32_t tag, std::uint64_t payloadSize) {
  const IDataStreamSet& view = package;
  std::uint64_t at = Find(view.GetUserData(), view.GetUserDataSize(), tag);
  if (at != kNotFound) {
    return PayloadSize(view.GetUserData(), at) < payloadSize ? nullptr : package.GetUserData() + at + kHeadSize;
  }
  at = view.GetUserDataSize();
  if (!package.SetUserDataSize(at + kHeadSize + payloadSize)) return nullptr;
  std::uint8_t* block = package.GetUserData() + at;
  LittleEndian::Store32(block, tag);
  LittleEndian::Store64(block + 4, payloadSize);
  std::memset(block + kHeadSize, 0, static_cast<std::size_t>(payloadSize));
  return block + kHeadSize;
}

std::uint8_t* UserDataBlock::EnsureLast(IDataStreamSet& package, std::uint32_t tag, std::uint64_t payloadSize) {
  const IDataStreamSet& view = package;
  const std::uint64_t size = view.GetUserDataSize();
  const std::uint64_t at = Find(view.GetUserData(), size, tag);
  if (at != kNotFound) {
    const std::uint64_t length = PayloadSize(view.GetUserData(), at);
    const std::uint64_t end = at + kHeadSize + length;
    if (end == size && length == payloadSize) return package.GetUserData() + at + kHeadSize;
    std::uint8_t* data = package.GetUserData();
    std::memmove(data + at, data + end, static_cast<std::size_t>(size - end));
    if (!package.SetUserDataSize(size - (end - at))) return nullptr;
  }
  return Ensure(package, tag, payloadSize);
}

}  // namespace Tovrel
