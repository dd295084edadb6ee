#include "streams/ChildFileStream.h"

#include "pagefile/ChildFileSeeker.h"

namespace Tovrel {

ChildFileStream::ChildFileStream(IStreamOwner* owner, std::uint64_t identifier, FilePageCache* cache,
                                 RefPtr<IPagedFileSeeker>& seeker)
    : PagedFileStream(cache, seeker), owner_(owner), identifier_(identifier) {}

ChildFileStream::~ChildFileStream() {
  if (owner_ != nullptr) owner_->ForgetStream(identifier_, this);
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
