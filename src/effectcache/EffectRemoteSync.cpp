#include "effectcache/EffectRemoteSync.h"

#include "effectcache/EffectCacheImpl.h"
#include "effectcache/EffectCacheReader.h"
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

}  // namespace

EffectRemoteSync::Result EffectRemoteSync::Push(const WStr& folder, const EffectRemoteStore::Settings& store,
                                                const Progress& progress) {
  Result result;
  std::vector<std::string> names;
  {
    EffectCacheReader reader(folder);
    if (!reader.Ok()) return result;
    for (const EffectTable::Entry& entry : reader.Entries()) names.push_back(entry.name);
  }
  result.ok = true;
  EffectRemoteStore remote(store);
  std::size_t next = 0;
  std::uint64_t done = 0;
  while (next < names.size()) {
    for (const Copy& copy : ReadBatch(folder, names, &next, &result.failed)) {
      const auto size = static_cast<std::uint64_t>(copy.compressed.Count());
      if (remote.Store(copy.name, copy.record.permanent != 0, copy.record.uncompressedSize, copy.compressed.Addr(0),
                       size)) {
        ++result.moved;
        result.bytes += RemoteEffectObject::kHeaderSize + copy.name.size() + size;
      } else {
        ++result.failed;
      }
      if (progress) progress(++done, names.size());
    }
    done = next;
  }
  result.counts = remote.GetCounts();
  result.lastError = remote.GetLastError();
  return result;
}

EffectRemoteSync::Result EffectRemoteSync::Pull(const WStr& folder, const EffectRemoteStore::Settings& store,
                                                const std::vector<std::string>& names, const Progress& progress) {
  EffectRemoteStore remote(store);
  return PullEach(folder, remote, names.size(), progress,
                  [&](std::size_t i, std::string* name, Tab<unsigned char>& data, bool* permanent) {
                    *name = names[i];
                    return remote.Fetch(*name, data, permanent);
                  });
}

EffectRemoteSync::Result EffectRemoteSync::PullAll(const WStr& folder, const EffectRemoteStore::Settings& store,
                                                   const Progress& progress) {
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
  Result result = PullEach(folder, remote, keys.size(), progress,
                           [&](std::size_t i, std::string* name, Tab<unsigned char>& data, bool* permanent) {
                             return remote.FetchKey(keys[i], name, data, permanent);
                           });
  result.listingCut = cut;
  return result;
}

EffectRemoteSync::Result EffectRemoteSync::PullEach(const WStr& folder, EffectRemoteStore& remote, std::size_t count,
                                                    const Progress& progress, const Fetcher& fetch) {
  Result result;
  EffectCacheImpl cache(folder, EffectCacheImpl::kHostCompressionLevel, EffectCacheImpl::kCacheBytesLimit);
  // The folder's cache only stores: its own store, if the environment names
  // one, would send the pulled effects back.
  cache.SetRemoteStore(static_cast<const EffectRemoteStore::Settings*>(nullptr));
  // Saves run on the cache's worker while the next effects come over the
  // network; the last ForceSaveToFile waits for them all.
  cache.SetBackgroundSaving(true);
  if (!cache.IsEnabled() || cache.IsReadOnly()) return result;
  for (std::size_t i = 0; i < count; ++i) {
    const EffectRemoteStore::Counts before = remote.GetCounts();
    std::string name;
    Tab<unsigned char> data;
    bool permanent = false;
    if (fetch(i, &name, data, &permanent) &&
        cache.CacheCompiledEffect(WStr(WideText::FromUtf8(name).c_str()), data.Addr(0),
                                  static_cast<std::size_t>(data.Count()), permanent)) {
      ++result.moved;
      result.bytes += remote.GetCounts().bytesIn - before.bytesIn;
    } else if (remote.GetCounts().misses > before.misses) {
      ++result.absent;
    } else {
      ++result.failed;
    }
    if (progress) progress(i + 1, count);
  }
  cache.ForceSaveToFile();
  result.ok = cache.IsEnabled();
  result.counts = remote.GetCounts();
  result.lastError = remote.GetLastError();
  return result;
}

}  // namespace Tovrel
