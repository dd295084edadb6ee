#include "effectcache/EffectRemoteSync.h"

#include <mutex>

#include "effectcache/EffectCacheImpl.h"
#include "effectcache/EffectCacheReader.h"
#include "effectcache/ParallelJobs.h"
#include "effectcache/RemoteEffectObject.h"
#include "platform/WideText.h"

namespace Tovrel {

namespace {

constexpr std::uint64_t kBatchBytes = 16u << 20;

struct Copy {
  std::string name;
  EffectRecord record;
  Tab<unsigned char> compressed;
};

// Reads, under the folder's mutex, the effects from `next` on until about
// kBatchBytes of them; `names` is the list taken at the start. Names gone
// or unreadable since are counted in `skipped`.
std::vector<Copy> ReadBatch(const WStr& folder, const std::vector<std::string>& names, std::size_t* next,
                            std::uint64_t* skipped) {
  std::vector<Copy> batch;
  EffectCacheReader reader(folder);
  if (!reader.Ok()) {
    *skipped += names.size() - *next;
    *next = names.size();
    return batch;
  }
  std::uint64_t bytes = 0;
  while (*next < names.size() && bytes < kBatchBytes) {
    const std::string& name = names[(*next)++];
    const EffectRecord* record = reader.Entries().Find(name);
    Copy copy{name, record != nullptr ? *record : EffectRecord{}, {}};
    if (record == nullptr || reader.ReadChecked(*record, copy.compressed) != EffectPayload::Result::kOk) {
      ++*skipped;
      continue;
    }
    bytes += static_cast<std::uint64_t>(copy.compressed.Count());
    batch.push_back(std::move(copy));
  }
  return batch;
}

// What a transfer's threads did, counted under one lock, and its progress
// told by one thread at a time.
class Tally {
 public:
  Tally(const EffectRemoteSync::Progress& progress, std::uint64_t total) : progress_(progress), total_(total) {}

  // `n` effects done, counted in `*counter`, with `bytes` added to `*bytes`.
  void Count(std::uint64_t* counter, std::uint64_t n, std::uint64_t bytes, std::uint64_t* byteCounter = nullptr) {
    if (n == 0) return;
    std::lock_guard<std::mutex> guard(lock_);
    *counter += n;
    if (byteCounter != nullptr) *byteCounter += bytes;
    done_ += n;
    if (progress_) progress_(done_, total_);
  }

 private:
  const EffectRemoteSync::Progress& progress_;
  const std::uint64_t total_;
  std::mutex lock_;
  std::uint64_t done_ = 0;
};

}  // namespace

EffectRemoteSync::Result EffectRemoteSync::Push(const WStr& folder, const EffectRemoteStore::Settings& store,
                                                const Progress& progress, unsigned jobs) {
  Result result;
  std::vector<std::string> names;
  {
    EffectCacheReader reader(folder);
    if (!reader.Ok()) return result;
    for (const EffectTable::Entry& entry : reader.Entries()) names.push_back(entry.name);
  }
  result.ok = true;
  EffectRemoteStore remote(store);
  Tally tally(progress, names.size());
  std::size_t next = 0;
  while (next < names.size()) {
    std::uint64_t skipped = 0;
    const std::vector<Copy> batch = ReadBatch(folder, names, &next, &skipped);
    tally.Count(&result.failed, skipped, 0);
    ParallelJobs::Run(batch.size(), jobs, [&](std::size_t i) {
      const Copy& copy = batch[i];
      const auto size = static_cast<std::uint64_t>(copy.compressed.Count());
      const bool stored = remote.Store(copy.name, copy.record.permanent != 0, copy.record.uncompressedSize,
                                       copy.compressed.Addr(0), size);
      tally.Count(stored ? &result.moved : &result.failed, 1,
                  stored ? RemoteEffectObject::kHeaderSize + copy.name.size() + size : 0, &result.bytes);
    });
  }
  result.counts = remote.GetCounts();
  result.lastError = remote.GetLastError();
  return result;
}

EffectRemoteSync::Result EffectRemoteSync::Pull(const WStr& folder, const EffectRemoteStore::Settings& store,
                                                const std::vector<std::string>& names, const Progress& progress,
                                                unsigned jobs) {
  EffectRemoteStore remote(store);
  return PullEach(folder, remote, names.size(), progress, jobs,
                  [&](std::size_t i, std::string* name, Tab<unsigned char>& data, bool* permanent, bool* absent) {
                    *name = names[i];
                    return remote.Fetch(*name, data, permanent, nullptr, absent);
                  });
}

EffectRemoteSync::Result EffectRemoteSync::PullAll(const WStr& folder, const EffectRemoteStore::Settings& store,
                                                   const Progress& progress, unsigned jobs) {
  EffectRemoteStore remote(store);
  std::vector<std::string> keys;
  bool cut = false;
  if (!remote.ListKeys(&keys, &cut)) {
    Result result;
    result.noListing = true;
    result.counts = remote.GetCounts();
    result.lastError = remote.GetLastError();
    return result;
  }
  Result result =
      PullEach(folder, remote, keys.size(), progress, jobs,
               [&](std::size_t i, std::string* name, Tab<unsigned char>& data, bool* permanent, bool* absent) {
                 return remote.FetchKey(keys[i], name, data, permanent, absent);
               });
  result.listingCut = cut;
  return result;
}

EffectRemoteSync::Result EffectRemoteSync::PullEach(const WStr& folder, EffectRemoteStore& remote, std::size_t count,
                                                    const Progress& progress, unsigned jobs, const Fetcher& fetch) {
  Result result;
  EffectCacheImpl cache(folder, EffectCacheImpl::kHostCompressionLevel, EffectCacheImpl::kCacheBytesLimit);
  // The folder's cache only stores: its own store, if the environment names
  // one, would send the pulled effects back.
  cache.SetRemoteStore(static_cast<const EffectRemoteStore::Settings*>(nullptr));
  // Saves run on the cache's worker while the next effects come over the
  // network; the last ForceSaveToFile waits for them all.
  cache.SetBackgroundSaving(true);
  if (!cache.IsEnabled() || cache.IsReadOnly()) return result;
  const std::uint64_t bytesBefore = remote.GetCounts().bytesIn;
  Tally tally(progress, count);
  // The cache takes effects from several threads at once, as a host's.
  ParallelJobs::Run(count, jobs, [&](std::size_t i) {
    std::string name;
    Tab<unsigned char> data;
    bool permanent = false;
    bool absent = false;
    const bool moved = fetch(i, &name, data, &permanent, &absent) &&
                       cache.CacheCompiledEffect(WStr(WideText::FromUtf8(name).c_str()), data.Addr(0),
                                                 static_cast<std::size_t>(data.Count()), permanent);
    tally.Count(moved ? &result.moved : absent ? &result.absent : &result.failed, 1, 0);
  });
  cache.ForceSaveToFile();
  result.ok = cache.IsEnabled();
  result.counts = remote.GetCounts();
  result.bytes = result.counts.bytesIn - bytesBefore;
  result.lastError = remote.GetLastError();
  return result;
}

}  // namespace Tovrel
