// PageFileIO: the low-level file steps of the page cache and the package.
//
// Measuring a file, growing it with zeros, and moving one page between a
// buffer and the file. Every failed C-runtime call throws FileIOException
// with errno (0 when no file is open). Stateless; the FILE* belongs to the
// caller. Thread-safety: as the stream passed in (one thread at a time).
#ifndef TOVREL_PAGEFILE_PAGEFILEIO_H
#define TOVREL_PAGEFILE_PAGEFILEIO_H

#include <cstdint>
#include <cstdio>

namespace Tovrel {

class PageFileIO {
 public:
  // Seeks to the end and returns the position. InvalidParameterException for
  // a null stream; FileIOException when the seek or tell fails.
  static std::uint64_t GetFileLength(std::FILE* file);

  // Grows the file to newLength bytes of which the new ones read as zeros:
  // up to a page is appended as zeros, a longer extension is left to the
  // system to fill in. Nothing when the file is already that long.
  static void ExtendFile(std::FILE* file, std::uint64_t newLength);

  // Reads one page at `offset` into buffer. False for a null buffer or an
  // offset past fileLength; FileIOException when no file is open, when the
  // seek fails, or when fewer than a page's bytes arrive (so a page that
  // starts exactly at fileLength throws while one past it gives false).
  static bool ReadPage(std::FILE* file, std::uint64_t fileLength, std::uint8_t* buffer,
                       std::uint64_t offset);

  // Writes one page at `offset`. Nothing for a null buffer or an offset at
  // or past fileLength; FileIOException when no file is open or a call fails.
  static void WritePage(std::FILE* file, std::uint64_t fileLength, const std::uint8_t* buffer,
                        std::uint64_t offset);
};

}  // namespace Tovrel

#endif
