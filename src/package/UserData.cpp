#include "package/UserData.h"

#include <new>
#include <stdexcept>

#include "package/SectionIO.h"
#include "pagefile/LittleEndian.h"

namespace Tovrel {

bool UserData::SetSize(std::uint64_t size) {
  if (size > kMostBytes) return false;
  try {
    bytes_.resize(size, 0);
  } catch (const std::bad_alloc&) {
    return false;
  } catch (const std::length_error&) {
    return false;
  }
  return true;
}

bool UserData::Read(RefPtr<IDataStream>& stream) {
  bytes_.clear();
  std::uint8_t length[8];
  if (stream->Read(length, sizeof length) != sizeof length) return false;
  const std::uint64_t size = LittleEndian::Load64(length);
  if (size > SectionIO::Remaining(stream)) return false;
  bytes_.resize(size);
  if (size != 0 && stream->Read(bytes_.data(), size) != size) {
    bytes_.clear();
    return false;
  }
  return true;
}

bool UserData::Write(RefPtr<IDataStream>& stream) const {
  std::vector<std::uint8_t> length;
  SectionIO::Put(length, bytes_.size());
  SectionIO::Flush(stream, length);
  SectionIO::WriteExact(stream, bytes_.data(), bytes_.size());
  return true;
}

}  // namespace Tovrel
