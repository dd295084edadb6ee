// ChildFileStream: a stream of a package as its users get it: a
// PagedFileStream over the stream's ChildFileSeeker that knows the package
// which opened it and its own identifier.
//
// The package enters a new stream in its open-stream map, without holding
// a reference; the stream takes itself out of that map when the last
// reference goes. When the package dies first it detaches its open
// streams: they let their pages go, forget the package and the page cache,
// and from then on every transfer moves nothing. A stream opened for
// reading only (the package's tables give its pages to it unsoundly)
// writes nothing: Write moves no byte and answers 0.
//
// Reference counted (held by its users through RefPtr<IDataStream>).
// Thread-safety: none; one thread at a time, with its package.
#ifndef TOVREL_STREAMS_CHILDFILESTREAM_H
#define TOVREL_STREAMS_CHILDFILESTREAM_H

#include <cstdint>

#include "pagefile/TailLocation.h"
#include "streams/IStreamOwner.h"
#include "streams/PagedFileStream.h"

namespace Tovrel {

class ChildFileStream : public PagedFileStream {
 protected:
  // Leaves the owner's open-stream map, then dies as a PagedFileStream.
  ~ChildFileStream() override;

 public:
  ChildFileStream(IStreamOwner* owner, std::uint64_t identifier, FilePageCache* cache,
                  RefPtr<IPagedFileSeeker>& seeker, bool writable);

  std::uint64_t GetIdentifier() const { return identifier_; }
  bool IsWritable() const { return writable_; }
  // 0, nothing written, when the stream is not writable.
  std::uint64_t Write(const void* buffer, std::uint64_t count) override;

  // The owner is going away: let the pages go and forget owner and cache.
  void Detach();
  // The stream's tail now lies at `tail` (its child file was compacted):
  // the page table is rebuilt and the position kept.
  void MoveTail(const TailLocation& tail);

 private:
  IStreamOwner* owner_;       // not owned; null once detached
  std::uint64_t identifier_;  // the stream's identifier in its package
  bool writable_;             // false: opened for reading only
};

}  // namespace Tovrel

#endif
