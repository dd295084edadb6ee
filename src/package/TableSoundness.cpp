#include "package/TableSoundness.h"

#include <algorithm>
#include <cassert>
#include <limits>

#include "pagefile/FileDataCorruptException.h"
#include "pagefile/PageGeometry.h"

namespace Tovrel {

namespace {

bool Contains(const std::vector<std::uint64_t>& sorted, std::uint64_t identifier) {
  return std::binary_search(sorted.begin(), sorted.end(), identifier);
}

}  // namespace

TableSoundness::TableSoundness() : streamOwners_(0) {}

void TableSoundness::CheckInvariants() const {
  assert(std::is_sorted(unsoundStreams_.begin(), unsoundStreams_.end()));
  assert(std::adjacent_find(unsoundStreams_.begin(), unsoundStreams_.end()) == unsoundStreams_.end());
  assert(std::is_sorted(unsoundChildFiles_.begin(), unsoundChildFiles_.end()));
  assert(std::adjacent_find(unsoundChildFiles_.begin(), unsoundChildFiles_.end()) == unsoundChildFiles_.end());
}

void TableSoundness::Clear() {
  owners_ = std::vector<std::uint32_t>();
  ownerIds_ = std::vector<std::uint64_t>();
  unsoundOwner_ = std::vector<bool>();
  streamOwners_ = 0;
  unsoundStreams_.clear();
  unsoundChildFiles_.clear();
}

bool TableSoundness::IsStreamSound(std::uint64_t identifier) const {
  CheckInvariants();
  return !Contains(unsoundStreams_, identifier);
}

bool TableSoundness::IsChildFileSound(std::uint64_t identifier) const {
  CheckInvariants();
  return !Contains(unsoundChildFiles_, identifier);
}

void TableSoundness::Assess(PageAllocator& allocator, const StreamTable& streams, const ChildFileTable& childFiles,
                            const IPagedFileSeeker& head) {
  Clear();
  assert(streams.GetCount() + childFiles.GetChildFileCount() < std::numeric_limits<std::uint32_t>::max() - kFirstOwner);
  owners_.assign(allocator.GetTableLength(), kNobody);
  try {
    ClaimHeadChain(allocator, head);
    WalkStreams(allocator, streams);
    WalkChildFiles(allocator, childFiles);
    CheckTails(streams, childFiles);
    Collect(streams, childFiles);
  } catch (...) {
    Clear();
    throw;
  }
  owners_ = std::vector<std::uint32_t>();
  ownerIds_ = std::vector<std::uint64_t>();
  unsoundOwner_ = std::vector<bool>();
  CheckInvariants();
}

void TableSoundness::ClaimHeadChain(PageAllocator& allocator, const IPagedFileSeeker& head) {
  // A head page marked free would be overwritten by the next save without
  // a journal copy: the table cannot be trusted at all.
  for (std::uint64_t i = 0; i < head.pageCount; ++i) {
    const std::uint64_t page = head.pageIds[i];
    if (!IsPageId(page) || !allocator.IsPageAllocated(page)) throw FileDataCorruptException();
    owners_[page - kFirstPageId] = kHead;
  }
}

std::uint32_t TableSoundness::AddOwner(std::uint64_t identifier) {
  ownerIds_.push_back(identifier);
  unsoundOwner_.push_back(false);
  return static_cast<std::uint32_t>(kFirstOwner + ownerIds_.size() - 1);
}

void TableSoundness::WalkStreams(PageAllocator& allocator, const StreamTable& streams) {
  // Only streams with whole pages own pages (most streams of a cache are
  // tails alone).
  streams.ForEach([&](const StreamEntry& entry) {
    if (entry.fullPageCount == 0) return;
    const std::uint32_t owner = AddOwner(entry.identifier);
    if (!ClaimChain(allocator, owner, entry.firstPage, entry.fullPageCount, nullptr)) {
      unsoundOwner_[owner - kFirstOwner] = true;
    }
  });
  streamOwners_ = ownerIds_.size();
}

void TableSoundness::WalkChildFiles(PageAllocator& allocator, const ChildFileTable& childFiles) {
  for (std::uint64_t c = 0; c < childFiles.GetChildFileCount(); ++c) {
    const ChildFileRecord* child = childFiles.FindChildFile(childFiles.GetChildFileIdentifier(c));
    const std::uint32_t owner = AddOwner(child->identifier);
    if (!ClaimChain(allocator, owner, child->page[0], kChildFilePages, child->page)) {
      unsoundOwner_[owner - kFirstOwner] = true;
    }
  }
}

bool TableSoundness::ClaimChain(PageAllocator& allocator, std::uint32_t owner, std::uint64_t first,
                                std::uint64_t count, const std::uint64_t* listed) {
  // Each page is claimed once and a walk ends at the first page it cannot
  // claim, so all walks together visit each page of the table at most
  // once more than it is claimed.
  std::uint64_t page = first;
  for (std::uint64_t i = 0; i < count; ++i) {
    if (!IsPageId(page) || !allocator.IsPageAllocated(page)) return false;  // free or past the table
    if (listed != nullptr && listed[i] != page) return false;
    std::uint32_t& holder = owners_[page - kFirstPageId];
    if (holder != kNobody) {
      if (holder >= kFirstOwner && holder != owner) unsoundOwner_[holder - kFirstOwner] = true;
      return false;
    }
    holder = owner;
    page = allocator.GetNextPage(page);
  }
  return page == IPageAllocator::kEndLink;
}

void TableSoundness::CheckTails(const StreamTable& streams, const ChildFileTable& childFiles) {
  for (std::uint64_t c = 0; c < childFiles.GetChildFileCount(); ++c) {
    const std::uint64_t owner = streamOwners_ + c;
    if (!TailsLieInOrder(streams, childFiles, *childFiles.FindChildFile(ownerIds_[owner]))) {
      unsoundOwner_[owner] = true;
    }
  }
  // And every tail record stands in the list of the child file it names,
  // at its place: a record that points at another stream's bytes makes
  // that child file unsound.
  const auto childOwners = ownerIds_.begin() + static_cast<std::ptrdiff_t>(streamOwners_);
  childFiles.GetTails().ForEach([&](const StreamTailRecord& tail) {
    const std::vector<std::uint64_t>* list = childFiles.TailsOf(tail.childFileIdentifier);
    if (list != nullptr && tail.indexInChild < list->size() && (*list)[tail.indexInChild] == tail.streamIdentifier) {
      return;
    }
    const auto at = std::lower_bound(childOwners, ownerIds_.end(), tail.childFileIdentifier);
    if (at != ownerIds_.end() && *at == tail.childFileIdentifier) unsoundOwner_[at - ownerIds_.begin()] = true;
  });
}

bool TableSoundness::TailsLieInOrder(const StreamTable& streams, const ChildFileTable& childFiles,
                                     const ChildFileRecord& child) const {
  const std::vector<std::uint64_t>& list = *childFiles.TailsOf(child.identifier);
  std::uint64_t end = 0;
  for (std::uint64_t k = 0; k < list.size(); ++k) {
    const StreamTailRecord* tail = childFiles.FindTail(list[k]);
    if (tail == nullptr || tail->childFileIdentifier != child.identifier || tail->indexInChild != k ||
        tail->offset != end || tail->size == 0 || tail->size >= kPageSize || streams.Find(list[k]) == nullptr) {
      return false;
    }
    end += tail->size;
  }
  return child.freeBytes <= kChildFileSize && end == kChildFileSize - child.freeBytes;
}

void TableSoundness::Collect(const StreamTable& streams, const ChildFileTable& childFiles) {
  for (std::uint64_t owner = 0; owner < ownerIds_.size(); ++owner) {
    if (!unsoundOwner_[owner]) continue;
    (owner < streamOwners_ ? unsoundStreams_ : unsoundChildFiles_).push_back(ownerIds_[owner]);
  }
  // A stream whose tail lies in an unsound child file (the loader refuses
  // a tail record that names no child file).
  if (unsoundChildFiles_.empty()) return;
  childFiles.GetTails().ForEach([&](const StreamTailRecord& tail) {
    if (Contains(unsoundChildFiles_, tail.childFileIdentifier) && streams.Find(tail.streamIdentifier) != nullptr) {
      unsoundStreams_.push_back(tail.streamIdentifier);
    }
  });
  std::sort(unsoundStreams_.begin(), unsoundStreams_.end());
  unsoundStreams_.erase(std::unique(unsoundStreams_.begin(), unsoundStreams_.end()), unsoundStreams_.end());
}

}  // namespace Tovrel
