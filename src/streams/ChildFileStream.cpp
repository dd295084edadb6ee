#include "streams/ChildFileStream.h"

#include "pagefile/ChildFileSeeker.h"

namespace Tovrel {

ChildFileStream::ChildFileStream(IStreamOwner* owner, std::uint64_t identifier, FilePageCache* cache,
                                 RefPtr<IPagedFileSeeker>& seeker, bool writable)
    : PagedFileStream(cache, seeker), owner_(owner), identifier_(identifier), writable_(writable) {}

ChildFileStream::~ChildFileStream() {
  if (owner_ != nullptr) owner_->ForgetStream(identifier_, this);
}

std::uint64_t ChildFileStream::Write(const void* buffer, std::uint64_t count) {
  return writable_ ? PagedFileStream::Write(buffer, count) : 0;
}

void ChildFileStream::MoveTail(const TailLocation& tail) {
  auto* seeker = dynamic_cast<ChildFileSeeker*>(Seeker());
  if (seeker == nullptr) return;
  seeker->MoveTail(tail);
  Relocate();
}

void ChildFileStream::Detach() {
  DetachFromCache();
  owner_ = nullptr;
}

}  // namespace Tovrel
