#include "pagefile/PageFileIO.h"

#include <cerrno>

#include "pagefile/FileIOException.h"
#include "pagefile/InvalidParameterException.h"
#include "pagefile/PageGeometry.h"
#include "platform/PlatformFile.h"

namespace Tovrel {

namespace {

const std::uint8_t kZeroPage[kPageSize] = {};

void SeekTo(FileHandle* file, std::uint64_t offset) {
  if (PlatformFile::Seek(file, static_cast<std::int64_t>(offset), SEEK_SET) != 0) {
    throw FileIOException(errno);
  }
}

}  // namespace

std::uint64_t PageFileIO::GetFileLength(FileHandle* file) {
  if (file == nullptr) throw InvalidParameterException();
  if (PlatformFile::Seek(file, 0, SEEK_END) != 0) throw FileIOException(errno);
  const std::int64_t position = PlatformFile::Tell(file);
  if (position < 0) throw FileIOException(errno);
  return static_cast<std::uint64_t>(position);
}

void PageFileIO::ExtendFile(FileHandle* file, std::uint64_t newLength) {
  const std::uint64_t current = GetFileLength(file);
  if (newLength <= current) return;
  try {
    AppendZeros(file, current, newLength);
    // Handed to the system now, so that the file's length on disk covers
    // the new end and a full device or a size limit is reported here.
    errno = 0;
    if (PlatformFile::Flush(file) != 0) throw FileIOException(errno);
  } catch (const FileIOException&) {
    // Whatever part of the extension landed is taken back, best effort.
    PlatformFile::Truncate(file, current);
    throw;
  }
}

void PageFileIO::AppendZeros(FileHandle* file, std::uint64_t current, std::uint64_t newLength) {
  if (newLength - current > kPageSize) {
    // A long extension: writing its last byte makes the system fill in the
    // zeros before it, without moving them through the stream.
    SeekTo(file, newLength - 1);
    errno = 0;
    if (PlatformFile::Write(kZeroPage, 1, 1, file) != 1) throw FileIOException(errno);
    return;
  }
  SeekTo(file, current);
  while (current < newLength) {
    const std::uint64_t chunk = newLength - current < kPageSize ? newLength - current : kPageSize;
    errno = 0;
    if (PlatformFile::Write(kZeroPage, 1, chunk, file) != chunk) throw FileIOException(errno);
    current += chunk;
  }
}

bool PageFileIO::ReadPage(FileHandle* file, std::uint64_t fileLength, std::uint8_t* buffer,
                          std::uint64_t offset, std::uint64_t pages) {
  if (buffer == nullptr) return false;
  if (file == nullptr) throw FileIOException(0);
  if (offset > fileLength) return false;
  SeekTo(file, offset);
  errno = 0;
  if (PlatformFile::Read(buffer, kPageSize * pages, 1, file) != 1) throw FileIOException(errno);
  return true;
}

bool PageFileIO::ReadBytes(FileHandle* file, std::uint64_t offset, std::uint8_t* buffer, std::uint64_t size) {
  if (file == nullptr) throw FileIOException(0);
  if (size == 0) return true;
  SeekTo(file, offset);
  errno = 0;
  if (PlatformFile::Read(buffer, 1, size, file) == size) return true;
  if (errno != 0) throw FileIOException(errno);
  return false;
}

bool PageFileIO::ReadBytesAt(FileHandle* file, std::uint64_t offset, std::uint8_t* buffer, std::uint64_t size) {
  if (file == nullptr) throw FileIOException(0);
  while (size > 0) {
    errno = 0;
    const std::int64_t got = PlatformFile::ReadAt(file, buffer, static_cast<std::size_t>(size), offset);
    if (got < 0) throw FileIOException(errno);
    if (got == 0) return false;  // the file ends first
    buffer += got;
    offset += static_cast<std::uint64_t>(got);
    size -= static_cast<std::uint64_t>(got);
  }
  return true;
}

void PageFileIO::WritePage(FileHandle* file, std::uint64_t fileLength, const std::uint8_t* buffer,
                           std::uint64_t offset, std::uint64_t pages) {
  if (buffer == nullptr) return;
  if (file == nullptr) throw FileIOException(0);
  if (offset >= fileLength) return;
  SeekTo(file, offset);
  errno = 0;
  if (PlatformFile::Write(buffer, kPageSize * pages, 1, file) != 1) throw FileIOException(errno);
}

}  // namespace Tovrel
