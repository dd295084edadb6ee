#include "effectcache/CacheTimeStamp.h"

#include "pagefile/LittleEndian.h"

namespace Tovrel {

void CacheTimeStamp::Encode(std::uint8_t* bytes) const {
  LittleEndian::Store16(bytes, year);
  LittleEndian::Store16(bytes + 2, month);
  LittleEndian::Store16(bytes + 4, day);
  LittleEndian::Store16(bytes + 6, hour);
  LittleEndian::Store16(bytes + 8, minute);
  LittleEndian::Store16(bytes + 10, second);
  LittleEndian::Store32(bytes + 12, milliseconds);
}

CacheTimeStamp CacheTimeStamp::Decode(const std::uint8_t* bytes) {
  CacheTimeStamp stamp{};
  stamp.year = LittleEndian::Load16(bytes);
  stamp.month = LittleEndian::Load16(bytes + 2);
  stamp.day = LittleEndian::Load16(bytes + 4);
  stamp.hour = LittleEndian::Load16(bytes + 6);
  stamp.minute = LittleEndian::Load16(bytes + 8);
  stamp.second = LittleEndian::Load16(bytes + 10);
  stamp.milliseconds = LittleEndian::Load32(bytes + 12);
  return stamp;
}

}  // namespace Tovrel
