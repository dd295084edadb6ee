// IDataStream: a sequence of bytes of fixed extent with a position.
//
// Streams come from an IDataStreamSet (OpenStream) and are held through
// RefPtr<IDataStream>; the last Release destroys one. A stream's size is
// fixed when it is created: Write overwrites, never extends. A short count
// from Read or Write is the only signal of the end of the stream (or of a
// page that could not be had); neither throws for it.
//
// Thread-safety: none; a stream is used by one thread at a time.
#ifndef TOVREL_IDATASTREAM_H
#define TOVREL_IDATASTREAM_H

#include <cstdint>

#include "host/ARefObject.h"
#include "host/RefPtr.h"
#include "tovrel/export.h"

namespace Tovrel {

class TOVREL_API IDataStream : public NorvaneGraphics::ARefObject {
 protected:
  ~IDataStream() override;

 public:
  IDataStream();

  // Current byte position, 0 at the start.
  virtual std::uint64_t GetPosition() = 0;
  // Size in bytes, fixed at creation.
  virtual std::uint64_t GetSize() = 0;
  // Origin 0: from the start, 1: from the position, 2: from the end. False,
  // position unchanged, when the target lies before 0 or past the size.
  // Positions are computed in 32 bits.
  virtual bool Seek(std::uint32_t origin, std::int32_t offset) = 0;
  // Copies up to count bytes from the position on; returns the number copied.
  virtual std::uint64_t Read(void* buffer, std::uint64_t count) = 0;
  // Overwrites up to count bytes from the position on, stopping at the end.
  virtual std::uint64_t Write(const void* buffer, std::uint64_t count) = 0;
};

}  // namespace Tovrel

#endif
