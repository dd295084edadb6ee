#include "effectcache/SearchSnapshot.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "effectcache/EffectNameOrder.h"
#include "effectcache/EffectPayload.h"
#include "pagefile/FilePageCache.h"
#include "pagefile/PageFileIO.h"
#include "pagefile/PageGeometry.h"
#include "platform/PlatformFile.h"

namespace Tovrel {

std::unique_ptr<SearchSnapshot> SearchSnapshot::Build(const PagedFilePackage& package, const EffectTable& index,
                                                      const wchar_t* path, std::uint64_t counter) {
  const FilePageCache* cache = package.GetPageCache();
  if (cache == nullptr || package.IsModified() || package.IsBroken() || !cache->FileMatchesCache()) return nullptr;
  try {
    std::unique_ptr<SearchSnapshot> snapshot(new SearchSnapshot);
    snapshot->counter_ = counter;
    snapshot->images_ = std::make_shared<SavedImages>();
    snapshot->entries_.reserve(index.Size());
    const std::uint64_t limit = 8 + EffectPayload::CompressedSizeLimit();
    for (const EffectTable::Entry& entry : index) {
      Entry made{entry.name, entry.record, {}, false};
      // A stream that cannot be located (damaged tables, too large) is
      // left to the ordinary search.
      if (DirectStreamReader::Locate(package, entry.record.streamId, limit, made.runs) !=
          DirectStreamReader::Result::kOk) {
        continue;
      }
      snapshot->entries_.push_back(std::move(made));
    }
    snapshot->used_.reset(new std::atomic<bool>[snapshot->entries_.size()]);
    for (std::size_t i = 0; i < snapshot->entries_.size(); ++i) snapshot->used_[i].store(false);
    snapshot->file_ = PlatformFile::Open(path, "rb");
    if (snapshot->file_ == nullptr) return nullptr;
    return snapshot;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

SearchSnapshot::~SearchSnapshot() {
  if (file_ != nullptr) PlatformFile::Close(file_);
}

bool SearchSnapshot::Protect(std::uint64_t counterNow) {
  if (counterNow != counter_) return false;
  ownWrite_.store(true, std::memory_order_seq_cst);
  return true;
}

bool SearchSnapshot::Current(const CacheFileLock& lock) const {
  const std::uint64_t now = lock.Observe();
  if (!images_->Trusted()) return false;
  if (now == counter_) return true;
  // This object's own save holds the file, or held it last: what it
  // overwrote is kept, until its page cache next changes the file.
  return ownWrite_.load(std::memory_order_seq_cst) && (now == counter_ + 1 || now == counter_ + 2);
}

std::vector<SearchSnapshot::Entry>::iterator SearchSnapshot::Find(const std::string& key) {
  const auto at = std::lower_bound(entries_.begin(), entries_.end(), key, [](const Entry& entry, const std::string& k) {
    return EffectNameOrder()(entry.name, k);
  });
  return at == entries_.end() || at->name != key ? entries_.end() : at;
}

void SearchSnapshot::Supersede(const std::string& name) {
  const auto at = Find(name);
  if (at != entries_.end()) at->superseded = true;
}

SearchSnapshot::Result SearchSnapshot::Read(const std::string& key, const CacheFileLock& lock,
                                            std::vector<std::uint8_t>& compressed, EffectRecord* record) {
  const auto at = Find(key);
  if (at == entries_.end() || at->superseded) return Result::kMissing;
  if (!Current(lock)) return Result::kDeclined;
  std::uint64_t size = 0;
  for (const DirectStreamReader::Run& run : at->runs) size += run.size;
  compressed.resize(size);
  std::uint64_t done = 0;
  for (const DirectStreamReader::Run& run : at->runs) {
    // A file cut shorter than the run: the save cut pages the snapshot needs.
    if (!PageFileIO::ReadBytesAt(file_, run.offset, compressed.data() + done, run.size)) return Result::kDeclined;
    // A page's image is kept before the page changes in the file: one that
    // this read may have seen changed is found here.
    if (!images_->Empty()) Overlay(run, compressed.data() + done);
    done += run.size;
  }
  // The reads are system calls that have completed by now: a write they
  // may have seen came after its page's image was kept, or after the
  // counter moved.
  if (!Current(lock)) return Result::kDeclined;
  *record = at->record;
  used_[static_cast<std::size_t>(at - entries_.begin())].store(true, std::memory_order_relaxed);
  return Result::kOk;
}

void SearchSnapshot::Overlay(const DirectStreamReader::Run& run, std::uint8_t* bytes) const {
  std::uint8_t image[kPageSize];
  const std::uint64_t end = run.offset + run.size;
  for (std::uint64_t page = run.offset / kPageSize; page * kPageSize < end; ++page) {
    if (!images_->Find(page, image)) continue;
    const std::uint64_t from = std::max(run.offset, page * kPageSize);
    const std::uint64_t to = std::min(end, (page + 1) * kPageSize);
    std::memcpy(bytes + (from - run.offset), image + (from - page * kPageSize), to - from);
  }
}

std::vector<std::string> SearchSnapshot::UsedNames() const {
  std::vector<std::string> names;
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    if (used_[i].load(std::memory_order_relaxed)) names.push_back(entries_[i].name);
  }
  return names;
}

}  // namespace Tovrel
