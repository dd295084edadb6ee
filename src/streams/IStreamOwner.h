// IStreamOwner: what a ChildFileStream tells the package that opened it.
//
// The package keeps a map of its open streams without holding references
// to them; a stream that is being destroyed takes itself out of that map
// through ForgetStream. Implemented by the package, which outlives every
// call (it detaches its streams before it dies). Thread-safety: none; one
// thread at a time.
#ifndef TOVREL_STREAMS_ISTREAMOWNER_H
#define TOVREL_STREAMS_ISTREAMOWNER_H

#include <cstdint>

namespace Tovrel {

class ChildFileStream;

class IStreamOwner {
 public:
  // Erases the open-stream entry of `identifier` if it is `stream`.
  virtual void ForgetStream(std::uint64_t identifier, const ChildFileStream* stream) = 0;

 protected:
  ~IStreamOwner() = default;
};

}  // namespace Tovrel

#endif
