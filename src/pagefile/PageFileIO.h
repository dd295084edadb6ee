// PageFileIO: the low-level file steps of the page cache and the package.
//
// Measuring a file, growing it with zeros, and moving one page between a
// buffer and the file. Every failed C-runtime call throws FileIOException
// with errno (0 when no file is open). Stateless; the file handle belongs to the
// caller. Thread-safety: as the stream passed in (one thread at a time,
// but for ReadBytesAt).
#ifndef TOVREL_PAGEFILE_PAGEFILEIO_H
#define TOVREL_PAGEFILE_PAGEFILEIO_H

#include <cstdint>

#include "platform/FileHandle.h"

namespace Tovrel {

class PageFileIO {
 public:
  // Seeks to the end and returns the position. InvalidParameterException for
  // a null stream; FileIOException when the seek or tell fails.
  static std::uint64_t GetFileLength(FileHandle* file);

  // Grows the file to newLength bytes of which the new ones read as zeros:
  // up to a page is appended as zeros, a longer extension is left to the
  // system to fill in. The new length is handed to the system before it
  // returns; a failure throws FileIOException with errno, after cutting the
  // file back to its former length as far as it can. Nothing when the file
  // is already that long.
  static void ExtendFile(FileHandle* file, std::uint64_t newLength);

  // Reads one page (or `pages` consecutive ones, in one call) at `offset`
  // into buffer. False for a null buffer or an
  // offset past fileLength; FileIOException when no file is open, when the
  // seek fails, or when fewer than a page's bytes arrive (so a page that
  // starts exactly at fileLength throws while one past it gives false).
  static bool ReadPage(FileHandle* file, std::uint64_t fileLength, std::uint8_t* buffer,
                       std::uint64_t offset, std::uint64_t pages = 1);

  // Reads `size` bytes at `offset` into buffer, as the file holds them.
  // False when the file ends before them; FileIOException when no file is
  // open or a call fails.
  static bool ReadBytes(FileHandle* file, std::uint64_t offset, std::uint8_t* buffer, std::uint64_t size);
  // The same with positional reads (FileHandle::ReadAt), which neither use
  // nor move the handle's position: safe on several threads at once.
  static bool ReadBytesAt(FileHandle* file, std::uint64_t offset, std::uint8_t* buffer, std::uint64_t size);

  // Writes one page (or `pages` consecutive ones, in one call) at `offset`. Nothing for a null buffer or an offset at
  // or past fileLength; FileIOException when no file is open or a call fails.
  static void WritePage(FileHandle* file, std::uint64_t fileLength, const std::uint8_t* buffer,
                        std::uint64_t offset, std::uint64_t pages = 1);

 private:
  static void AppendZeros(FileHandle* file, std::uint64_t current, std::uint64_t newLength);
};

}  // namespace Tovrel

#endif
