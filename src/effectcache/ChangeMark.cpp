#include "effectcache/ChangeMark.h"

#include <atomic>

#include "effectcache/UserDataBlock.h"
#include "pagefile/LittleEndian.h"
#include "platform/SystemValues.h"

namespace Tovrel {

namespace {

// A 64-bit number no other file's generation is likely to share: the
// clock, the process and a counter, mixed (SplitMix64's finaliser).
std::uint64_t NewGeneration() {
  static std::atomic<std::uint64_t> made{0};
  std::uint64_t x = static_cast<std::uint64_t>(SystemValues::PerformanceCounter()) ^
                    (static_cast<std::uint64_t>(SystemValues::CalendarSeconds()) << 32) ^
                    (static_cast<std::uint64_t>(SystemValues::ProcessId()) << 16) ^ ((made.fetch_add(1) + 1) * 0x9E3779B97F4A7C15ULL);
  x ^= x >> 30;
  x *= 0xBF58476D1CE4E5B9ULL;
  x ^= x >> 27;
  x *= 0x94D049BB133111EBULL;
  x ^= x >> 31;
  return x;
}

}  // namespace

ChangeMark ChangeMark::Next() const {
  ChangeMark next;
  next.present = true;
  next.generation = present ? generation : NewGeneration();
  next.changes = present ? changes + 1 : 1;
  return next;
}

ChangeMark ChangeMark::FromBlock(const std::uint8_t* block) {
  ChangeMark mark;
  if (LittleEndian::Load32(block) != kTag || LittleEndian::Load64(block + 4) != kPayloadSize ||
      LittleEndian::Load32(block + 12) != kVersion) {
    return mark;
  }
  mark.present = true;
  mark.generation = LittleEndian::Load64(block + 20);
  mark.changes = LittleEndian::Load64(block + 28);
  return mark;
}

ChangeMark ChangeMark::Read(const IDataStreamSet& package) {
  const std::uint8_t* data = package.GetUserData();
  const std::uint64_t at = UserDataBlock::Find(data, package.GetUserDataSize(), kTag);
  if (at == UserDataBlock::kNotFound || UserDataBlock::PayloadSize(data, at) != kPayloadSize) return ChangeMark{};
  return FromBlock(data + at);
}

bool ChangeMark::WriteLast(IDataStreamSet& package, const ChangeMark& mark) {
  std::uint8_t* payload = UserDataBlock::EnsureLast(package, kTag, kPayloadSize);
  if (payload == nullptr) return false;
  LittleEndian::Store32(payload, kVersion);
  LittleEndian::Store32(payload + 4, 0);
  LittleEndian::Store64(payload + 8, mark.generation);
  LittleEndian::Store64(payload + 16, mark.changes);
  return true;
}

}  // namespace Tovrel
