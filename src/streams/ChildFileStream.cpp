#include "streams/ChildFileStream.h"

namespace Tovrel {

ChildFileStream::ChildFileStream(IStreamOwner* owner, std::uint64_t identifier, FilePageCache* cache,
                                 RefPtr<IPagedFileSeeker>& seeker)
    : PagedFileStream(cache, seeker), owner_(owner), identifier_(identifier) {}

ChildFileStream::~ChildFileStream() {
  if (owner_ != nullptr) owner_->ForgetStream(identifier_, this);
}

void ChildFileStream::Detach() {
  DetachFromCache();
  owner_ = nullptr;
}

}  // namespace Tovrel
