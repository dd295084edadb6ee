#include "support/EffectFaultWorkload.h"

#include <new>
#include <utility>
#include <vector>

#include "effectcache/EffectCacheImpl.h"
#include "platform/FileFaults.h"
#include "platform/WideText.h"
#include "support/AllocationFaults.h"
#include "support/CrashWorkload.h"
#include "support/EffectTesting.h"

namespace Tovrel {
namespace Testing {

namespace {

WStr Wide(const std::string& name) { return WStr(WideText::FromUtf8(name).c_str()); }

}  // namespace

EffectFaultWorkload::EffectFaultWorkload(std::wstring folder, std::uint32_t seed)
    : folder_(std::move(folder)), seed_(seed), random_(seed) {}

void EffectFaultWorkload::Open(Host& host) {
  if (host.cache) return;
  try {
    host.cache.reset(new EffectCacheImpl(WStr(folder_.c_str()), 2));
  } catch (const std::bad_alloc&) {
    host.cache.reset();
  }
}

void EffectFaultWorkload::CacheSome(Host& host, int count, int names) {
  Open(host);
  if (!host.cache) return;
  for (int k = 0; k < count; ++k) {
    std::string name;
    std::vector<unsigned char> bytes;
    WStr wide;
    {
      AllocationFaultPause setUp;
      name = host.prefix + std::to_string(random_() % static_cast<std::uint32_t>(names));
      bytes = EffectTesting::Bytes(static_cast<std::uint32_t>(random_()), 100 + random_() % 20000, random_() % 3 != 0);
      wide = Wide(name);
    }
    bool cached = false;
    bool unknown = false;
    try {
      cached = host.cache->CacheCompiledEffect(wide, bytes.data(), bytes.size(), false);
    } catch (const std::bad_alloc&) {
      unknown = true;  // the effect may or may not wait in memory now
    }
    AllocationFaultPause bookkeeping;
    const std::uint64_t digest = CrashWorkload::Digest(bytes.data(), bytes.size());
    if (cached) host.pending[name] = Candidates{{digest}, false};
    if (!unknown) continue;
    const auto queued = host.pending.find(name);
    if (queued != host.pending.end()) {
      queued->second.digests.insert(digest);
    } else {
      // Either nothing is queued, and a save leaves the name as it is, or this.
      const Versions& stored = ledger_[name];
      Candidates maybe{stored.acceptable, !stored.required};
      maybe.digests.insert(digest);
      host.pending[name] = maybe;
    }
  }
}

void EffectFaultWorkload::Save(Host& host) {
  if (!host.cache) return;
  bool completed = false;
  try {
    host.cache->ForceSaveToFile();
    completed = host.cache->IsEnabled() && host.cache->GetNumberOfEffectsInMemory() == 0;
  } catch (const std::bad_alloc&) {
  }
  AllocationFaultPause bookkeeping;
  for (const auto& effect : host.pending) {
    Versions& versions = ledger_[effect.first];
    if (completed) {
      versions.acceptable = effect.second.digests;
      versions.required = !effect.second.orNone;
    } else {
      versions.acceptable.insert(effect.second.digests.begin(), effect.second.digests.end());
    }
  }
  if (completed) host.pending.clear();
}

bool EffectFaultWorkload::Acceptable(const std::string& name, std::uint64_t digest, const Host* searcher) const {
  if (searcher != nullptr) {
    const auto mine = searcher->pending.find(name);
    if (mine != searcher->pending.end() && mine->second.digests.count(digest) != 0) return true;
  }
  const auto found = ledger_.find(name);
  return found != ledger_.end() && found->second.acceptable.count(digest) != 0;
}

void EffectFaultWorkload::SearchSome(Host& host) {
  if (!host.cache) return;
  for (int k = 0; k < 3; ++k) {
    std::string name;
    WStr wide;
    {
      AllocationFaultPause setUp;
      name = (random_() % 2 == 0 ? "a/" : "b/") + std::to_string(random_() % 12);
      wide = Wide(name);
    }
    Tab<unsigned char> data;
    try {
      if (!host.cache->SearchCachedEffects(wide, data)) continue;
    } catch (const std::bad_alloc&) {
      continue;
    }
    AllocationFaultPause bookkeeping;
    const std::uint64_t digest = CrashWorkload::Digest(data.Addr(0), static_cast<std::size_t>(data.Count()));
    if (wrong_.empty() && !Acceptable(name, digest, &host)) wrong_ = "a search of " + name + " found bytes no save stored";
  }
}

void EffectFaultWorkload::Round(Host& a, Host& b) {
  CacheSome(a, 4, 12);
  Save(a);
  SearchSome(a);
  CacheSome(b, 2, 12);
  Save(b);
  SearchSome(b);
  SearchSome(a);
}

void EffectFaultWorkload::MoreSaves(Host& a, Host& b) {
  Host c{nullptr, "c/", {}};
  CacheSome(c, 3, 12);
  Save(c);
  if (wrong_.empty() && !c.pending.empty()) wrong_ = "a save without any fault did not complete";
  for (Host* host : {&a, &b}) {
    CacheSome(*host, 2, 12);
    Save(*host);
    SearchSome(*host);
  }
  // The objects go; what their destructors save is attempted, not counted.
  for (Host* host : {&a, &b}) {
    for (const auto& effect : host->pending) {
      ledger_[effect.first].acceptable.insert(effect.second.digests.begin(), effect.second.digests.end());
    }
    host->cache.reset();
  }
}

std::string EffectFaultWorkload::Check() {
  EffectCacheImpl reader(WStr(folder_.c_str()), 2);
  if (!reader.IsEnabled()) return "the cache cannot be opened after the run";
  for (const auto& entry : ledger_) {
    Tab<unsigned char> data;
    if (!reader.SearchCachedEffects(Wide(entry.first), data)) {
      if (entry.second.required) return entry.first + ", stored by a completed save, is lost";
      continue;
    }
    const std::uint64_t digest = CrashWorkload::Digest(data.Addr(0), static_cast<std::size_t>(data.Count()));
    if (!Acceptable(entry.first, digest, nullptr)) return entry.first + " holds bytes no save stored under it";
  }
  return "";
}

std::string EffectFaultWorkload::Run(Fault fault, std::uint64_t n, int error) {
  random_.seed(seed_);
  ledger_.clear();
  wrong_.clear();
  Host a{nullptr, "a/", {}};
  Host b{nullptr, "b/", {}};
  {
    AllocationFaultScope scope;
    FileFaults::StartCounting();
    if (fault == Fault::kFileCall) FileFaults::FailNth(FileCall::kAny, n, error);
    if (fault == Fault::kAllocation) {
      AllocationFaults::FailNth(n);
    } else {
      AllocationFaults::StartCounting();
    }
    for (int round = 0; round < kRounds; ++round) Round(a, b);
    fileCalls_ = FileFaults::Calls(FileCall::kAny);
    allocations_ = AllocationFaults::Count();
  }
  FileFaults::Reset();
  MoreSaves(a, b);
  const std::string found = Check();
  return !wrong_.empty() ? wrong_ : found;
}

}  // namespace Testing
}  // namespace Tovrel
