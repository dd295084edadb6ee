#include "package/SectionIO.h"

#include "pagefile/FileIOException.h"
#include "pagefile/LittleEndian.h"

namespace Tovrel {

void SectionIO::ReadExact(RefPtr<IDataStream>& stream, void* buffer, std::uint64_t n) {
  if (n != 0 && stream->Read(buffer, n) != n) throw FileIOException(0);
}

std::uint64_t SectionIO::ReadCount(RefPtr<IDataStream>& stream) {
  std::uint8_t bytes[8];
  ReadExact(stream, bytes, sizeof bytes);
  return LittleEndian::Load64(bytes);
}

void SectionIO::WriteExact(RefPtr<IDataStream>& stream, const void* buffer, std::uint64_t n) {
  if (n != 0 && stream->Write(buffer, n) != n) throw FileIOException(0);
}

void SectionIO::Flush(RefPtr<IDataStream>& stream, std::vector<std::uint8_t>& bytes) {
  WriteExact(stream, bytes.data(), bytes.size());
  bytes.clear();
}

void SectionIO::Put(std::vector<std::uint8_t>& bytes, std::uint64_t value) {
  const std::size_t at = bytes.size();
  bytes.resize(at + 8);
  LittleEndian::Store64(bytes.data() + at, value);
}

std::uint64_t SectionIO::Remaining(RefPtr<IDataStream>& stream) {
  const std::uint64_t size = stream->GetSize();
  const std::uint64_t position = stream->GetPosition();
  return size > position ? size - position : 0;
}

}  // namespace Tovrel
