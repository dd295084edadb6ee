#include "effectcache/EffectCacheMaintenance.h"

#include <algorithm>
#include <map>
#include <set>

#include "effectcache/EffectCacheImpl.h"
#include "effectcache/EffectCacheReader.h"
#include "effectcache/EffectCacheVerifier.h"

namespace Tovrel {

namespace {

using Choice = EffectCacheImpl::RemovalChoice;

// True (the result marked) when the folder's file may not be changed.
template <class Result>
bool Refuse(const WStr& folder, Result& result) {
  switch (EffectCacheMaintenance::CheckFolder(folder)) {
    case EffectCacheMaintenance::Check::kSound:
    case EffectCacheMaintenance::Check::kNoFile:
      return false;
    case EffectCacheMaintenance::Check::kDamaged:
      result.damaged = true;
      return true;
    case EffectCacheMaintenance::Check::kUnreadable:
      break;
  }
  return true;
}

EffectCacheMaintenance::Result RemoveChosen(const WStr& folder, const Choice& choose, bool dryRun) {
  EffectCacheMaintenance::Result result;
  if (Refuse(folder, result)) return result;
  EffectCacheImpl cache(folder, EffectCacheImpl::kHostCompressionLevel, EffectCacheImpl::kCacheBytesLimit);
  std::uint64_t stored = 0;
  std::uint64_t count = 0;
  const Choice counting = [&](const EffectTable::Entry& entry, const EffectCacheImpl::Removed& chosen,
                              std::uint64_t storedBytes) {
    stored = storedBytes;
    ++count;
    return choose(entry, chosen, storedBytes);
  };
  EffectCacheImpl::Removed removed;
  result.ok = cache.IsEnabled() && cache.RemoveStored(counting, dryRun, &removed);
  result.removedEffects = removed.effects;
  result.removedBytes = removed.storedBytes;
  result.keptEffects = count - removed.effects;
  result.keptBytes = stored - removed.storedBytes;
  return result;
}

}  // namespace

EffectCacheMaintenance::Result EffectCacheMaintenance::Remove(const WStr& folder, const std::vector<std::string>& names,
                                                              bool dryRun) {
  const std::set<std::string> wanted(names.begin(), names.end());
  std::set<std::string> found;
  Result result = RemoveChosen(
      folder,
      [&](const EffectTable::Entry& entry, const EffectCacheImpl::Removed&, std::uint64_t) {
        if (wanted.count(entry.name) == 0) return false;
        found.insert(entry.name);
        return true;
      },
      dryRun);
  for (const std::string& name : names) {
    if (found.count(name) == 0 && std::find(result.notFound.begin(), result.notFound.end(), name) == result.notFound.end()) {
      result.notFound.push_back(name);
    }
  }
  return result;
}

EffectCacheMaintenance::Result EffectCacheMaintenance::Clear(const WStr& folder, bool keepPermanent, bool dryRun) {
  return RemoveChosen(
      folder,
      [keepPermanent](const EffectTable::Entry& entry, const EffectCacheImpl::Removed&, std::uint64_t) {
        return !keepPermanent || entry.record.permanent == 0;
      },
      dryRun);
}

EffectCacheMaintenance::Result EffectCacheMaintenance::Trim(const WStr& folder, const TrimRule& rule, std::int64_t now,
                                                            bool dryRun) {
  return RemoveChosen(
      folder,
      [&rule, now](const EffectTable::Entry& entry, const EffectCacheImpl::Removed& chosen, std::uint64_t stored) {
        if (entry.record.permanent != 0) return false;
        const bool tooOld = rule.byAge && now - entry.record.lastUsed.Seconds() > rule.maxAgeSeconds;
        // Entries come oldest first: the size rule takes them until the
        // rest fits under the limit.
        const bool overSize = rule.bySize && stored - chosen.storedBytes >= rule.maxStoredBytes;
        return tooOld || overSize;
      },
      dryRun);
}

EffectCacheMaintenance::MergeResult EffectCacheMaintenance::Merge(const WStr& destination,
                                                                  const std::vector<WStr>& sources) {
  MergeResult result;
  if (Refuse(destination, result)) return result;
  // First the newest copy of every name among the sources.
  struct Best {
    std::size_t source;
    EffectRecord record;
  };
  std::map<std::string, Best> best;
  std::vector<bool> usable(sources.size(), false);
  for (std::size_t i = 0; i < sources.size(); ++i) {
    if (CheckFolder(sources[i]) != Check::kSound) {
      result.unreadableSources.push_back(i);
      continue;
    }
    const EffectCacheReader reader(sources[i]);
    if (!reader.Ok()) {
      result.unreadableSources.push_back(i);
      continue;
    }
    usable[i] = true;
    for (const EffectTable::Entry& entry : reader.Entries()) {
      const auto found = best.find(entry.name);
      if (found == best.end() || found->second.record.lastUsed < entry.record.lastUsed) {
        best[entry.name] = Best{i, entry.record};
      }
    }
  }
  // Then their bytes, each source read once; an entry that changed since
  // is passed over.
  std::vector<EffectCacheImpl::StoredCopy> copies;
  for (std::size_t i = 0; i < sources.size(); ++i) {
    if (!usable[i]) continue;
    EffectCacheReader reader(sources[i]);
    if (!reader.Ok()) continue;
    for (const auto& item : best) {
      if (item.second.source != i) continue;
      const EffectRecord* now = reader.Entries().Find(item.first);
      EffectCacheImpl::StoredCopy copy{item.first, item.second.record, {}};
      if (now == nullptr || now->streamId != item.second.record.streamId ||
          reader.ReadChecked(*now, copy.compressed) != EffectPayload::Result::kOk) {
        ++result.damagedEffects;
        continue;
      }
      copies.push_back(std::move(copy));
    }
  }
  EffectCacheImpl cache(destination, EffectCacheImpl::kHostCompressionLevel, EffectCacheImpl::kCacheBytesLimit);
  std::uint64_t stored = 0;
  result.ok = cache.IsEnabled() && cache.StoreCopies(copies, &stored, &result.copiedBytes);
  result.copiedEffects = stored;
  result.keptEffects = copies.size() - stored;
  return result;
}

EffectCacheMaintenance::CompactResult EffectCacheMaintenance::Compact(const WStr& folder) {
  {
    CompactResult refused;
    if (Refuse(folder, refused)) return refused;
  }
  EffectCacheImpl cache(folder, EffectCacheImpl::kHostCompressionLevel, EffectCacheImpl::kCacheBytesLimit);
  PagedFilePackage::CompactResult compacted;
  CompactResult result;
  result.ok = cache.IsEnabled() && cache.CompactFile(&compacted);
  result.fileBytesBefore = compacted.lengthBefore;
  result.fileBytesAfter = compacted.lengthAfter;
  return result;
}

bool EffectCacheMaintenance::ZeroStatistics(const WStr& folder, bool* damaged) {
  Result refused;
  if (Refuse(folder, refused)) {
    if (damaged != nullptr) *damaged = refused.damaged;
    return false;
  }
  EffectCacheImpl cache(folder, EffectCacheImpl::kHostCompressionLevel, EffectCacheImpl::kCacheBytesLimit);
  return cache.IsEnabled() && cache.ZeroStatistics();
}

EffectCacheMaintenance::SalvageResult EffectCacheMaintenance::Salvage(const WStr& folder) {
  SalvageResult result;
  const EffectCacheVerifier::Report report = EffectCacheVerifier::VerifyFolder(folder);
  switch (report.outcome) {
    case EffectCacheVerifier::Outcome::kNoFile:
      result.noFile = true;
      return result;
    case EffectCacheVerifier::Outcome::kUnreadable:
      return result;
    case EffectCacheVerifier::Outcome::kChecked:
      if (!report.problems.empty()) break;
      result.ok = true;
      result.effects = report.effects;
      return result;
    case EffectCacheVerifier::Outcome::kNotACache:
      break;
  }
  // A file that does not load is salvaged by the open itself.
  EffectCacheImpl cache(folder, EffectCacheImpl::kHostCompressionLevel, EffectCacheImpl::kCacheBytesLimit);
  result.needed = true;
  result.ok = cache.IsEnabled() && (cache.LastSalvage(&result.summary) || cache.SalvageFile(&result.summary));
  return result;
}

EffectCacheMaintenance::Check EffectCacheMaintenance::CheckFolder(const WStr& folder) {
  const EffectCacheVerifier::Report report = EffectCacheVerifier::CheckFolderTables(folder);
  switch (report.outcome) {
    case EffectCacheVerifier::Outcome::kChecked: return report.problems.empty() ? Check::kSound : Check::kDamaged;
    case EffectCacheVerifier::Outcome::kNoFile: return Check::kNoFile;
    case EffectCacheVerifier::Outcome::kNotACache: return Check::kDamaged;
    case EffectCacheVerifier::Outcome::kUnreadable: break;
  }
  return Check::kUnreadable;
}

}  // namespace Tovrel
