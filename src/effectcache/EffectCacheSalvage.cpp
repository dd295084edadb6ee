#include "effectcache/EffectCacheSalvage.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <new>
#include <utility>

#include "effectcache/EffectCacheHeader.h"
#include "effectcache/EffectIndex.h"
#include "effectcache/EffectNameOrder.h"
#include "effectcache/EffectPayload.h"
#include "pagefile/FileDataCorruptException.h"
#include "platform/PlatformFile.h"

namespace Tovrel {

namespace {

constexpr std::uint64_t kChunk = 65536;

// The index stream's bytes from its start for as far as they can be read,
// at most `most`: a damaged page ends them, and what came before stays.
std::vector<std::uint8_t> ReadIndexBytes(RefPtr<IDataStream>& stream, std::uint64_t most) {
  std::vector<std::uint8_t> bytes;
  while (bytes.size() < most) {
    const std::uint64_t at = bytes.size();
    const std::uint64_t want = std::min(kChunk, most - at);
    bytes.resize(static_cast<std::size_t>(at + want));
    std::uint64_t got = 0;
    try {
      got = stream->Read(bytes.data() + at, want);
    } catch (const FileDataCorruptException&) {
      got = 0;
    }
    if (got < want) {
      bytes.resize(static_cast<std::size_t>(at + got));
      break;
    }
  }
  return bytes;
}

// The entries decoded one after another, up to `count`, until the first
// that does not decode.
std::vector<EffectCacheSalvage::Effect> DecodeEntries(const std::vector<std::uint8_t>& bytes, std::uint64_t count) {
  std::vector<EffectCacheSalvage::Effect> entries;
  std::uint64_t at = 0;
  for (std::uint64_t i = 0; i < count; ++i) {
    EffectCacheSalvage::Effect entry;
    std::uint64_t used = 0;
    if (!EffectIndex::DecodeEntry(bytes.data() + at, bytes.size() - at, used, entry.name, entry.record)) break;
    at += used;
    entries.push_back(std::move(entry));
  }
  return entries;
}

// True for an entry whose stream and name no other entry claims, whose
// stream is not the index's, and whose name keeps the index's order.
class Claims {
 public:
  Claims(const std::vector<EffectCacheSalvage::Effect>& entries, std::uint64_t indexStreamId)
      : indexStreamId_(indexStreamId), outOfOrder_(entries.size(), false) {
    for (const EffectCacheSalvage::Effect& entry : entries) {
      ++streams_[entry.record.streamId];
      ++names_[entry.name];
    }
    MarkOutOfOrder(entries);
  }
  bool Alone(std::size_t i, const EffectCacheSalvage::Effect& entry) const {
    return entry.record.streamId != indexStreamId_ && streams_.at(entry.record.streamId) == 1 &&
           names_.at(entry.name) == 1 && !outOfOrder_[i];
  }

 private:
  // The library writes its index in name order, so a damaged name mostly
  // breaks it: both entries of a pair out of order are marked. An index
  // that is not mostly in order (another writer's) is not judged so.
  void MarkOutOfOrder(const std::vector<EffectCacheSalvage::Effect>& entries) {
    std::vector<std::size_t> breaks;
    for (std::size_t i = 1; i < entries.size(); ++i) {
      if (!EffectNameOrder()(entries[i - 1].name, entries[i].name)) breaks.push_back(i);
    }
    if (breaks.size() > std::max<std::size_t>(4, entries.size() / 8)) return;
    for (std::size_t i : breaks) outOfOrder_[i - 1] = outOfOrder_[i] = true;
  }

  std::uint64_t indexStreamId_;
  std::map<std::uint64_t, std::uint64_t> streams_;
  std::map<std::string, std::uint64_t> names_;
  std::vector<bool> outOfOrder_;
};

// True when the entry's stream holds what its record says, proven by
// decompressing it; the compressed bytes are then in entry.compressed.
bool Proven(PagedFilePackage& package, EffectCacheSalvage::Effect& entry) {
  try {
    if (EffectPayload::ReadCompressed(package, entry.record, entry.compressed) != EffectPayload::Result::kOk)
      return false;
    Tab<unsigned char> data;
    return EffectPayload::Decompress(entry.record, entry.compressed, data) == EffectPayload::Result::kOk;
  } catch (const FileDataCorruptException&) {
    return false;
  }
}

}  // namespace

EffectCacheSalvage::Found EffectCacheSalvage::CollectFrom(PagedFilePackage& package) {
  Found found;
  EffectCacheHeader header{};
  const IDataStreamSet& view = package;
  if (!EffectCacheHeader::Read(view.GetUserData(), view.GetUserDataSize(), header)) return found;
  RefPtr<IDataStream> index;
  try {
    index = package.OpenStream(header.indexStreamId);
  } catch (const FileDataCorruptException&) {
  }
  if (!index) return found;
  found.summary.verdict = Verdict::kSalvaged;
  found.summary.recordedEffects = header.effectCount;
  found.summary.fileBytes = package.GetFileLength();
  const std::uint64_t most =
      std::min({index->GetSize(), package.GetFileLength(),
                header.effectCount * (EffectRecord::kSize + 8 + EffectIndex::kNameSizeLimit)});
  std::vector<Effect> entries = DecodeEntries(ReadIndexBytes(index, most), header.effectCount);
  index.Reset();
  found.summary.readEntries = entries.size();
  const Claims claims(entries, header.indexStreamId);
  for (std::size_t i = 0; i < entries.size(); ++i) {
    Effect& entry = entries[i];
    if (!claims.Alone(i, entry) || !Proven(package, entry)) {
      found.summary.dropped.push_back(entry.name);
      continue;
    }
    entry.record.permanent = entry.record.permanent != 0 ? 1 : 0;
    found.summary.keptBytes += static_cast<std::uint64_t>(entry.compressed.Count());
    found.kept.push_back(std::move(entry));
  }
  found.summary.keptEffects = found.kept.size();
  return found;
}

EffectCacheSalvage::Found EffectCacheSalvage::Collect(const PagedFilePackageConfig& config) {
  Found found;
  const std::uint64_t failures = PlatformFile::FailuresOnThisThread();
  try {
    PagedFilePackage::LoadFailure why = PagedFilePackage::LoadFailure::kNone;
    RefPtr<PagedFilePackage> package = PagedFilePackage::OpenReadOnly(config, &why);
    if (!package) {
      // A package whose own tables do not load holds nothing that can be
      // found: it is replaced as the host replaces any such file.
      if (why != PagedFilePackage::LoadFailure::kCorrupt) found.summary.verdict = Verdict::kUnreadable;
      return found;
    }
    found = CollectFrom(*package);
    package->Close();
  } catch (const std::exception&) {
    found = Found();
    found.summary.verdict = Verdict::kUnreadable;
  }
  // A failed file call on the way says nothing of the bytes.
  if (PlatformFile::FailuresOnThisThread() != failures) {
    found = Found();
    found.summary.verdict = Verdict::kUnreadable;
  }
  return found;
}

std::wstring EffectCacheSalvage::DamagedCopyPath(const std::wstring& cacheFilePath) {
  return cacheFilePath + kDamagedSuffix;
}

bool EffectCacheSalvage::KeepDamagedCopy(const std::wstring& cacheFilePath) {
  const std::wstring copy = DamagedCopyPath(cacheFilePath);
  const std::wstring partial = copy + L"-partial";
  const std::uint64_t failures = PlatformFile::FailuresOnThisThread();
  FileHandle* from = PlatformFile::Open(cacheFilePath.c_str(), "rb");
  if (from == nullptr) return false;
  FileHandle* to = PlatformFile::Open(partial.c_str(), "wb");
  bool whole = to != nullptr;
  if (whole) {
    std::unique_ptr<std::uint8_t[]> buffer(new std::uint8_t[kChunk]);
    for (;;) {
      const std::size_t got = PlatformFile::Read(buffer.get(), 1, kChunk, from);
      if (got != 0 && PlatformFile::Write(buffer.get(), 1, got, to) != got) whole = false;
      if (got < kChunk || !whole) break;
    }
    whole = whole && PlatformFile::Flush(to) == 0 && PlatformFile::Sync(to) == 0;
    whole = PlatformFile::Close(to) == 0 && whole;
  }
  PlatformFile::Close(from);
  whole = whole && PlatformFile::FailuresOnThisThread() == failures;  // a failed read ends the copy short
  if (whole && PlatformFile::Rename(partial.c_str(), copy.c_str()) == 0) return true;
  PlatformFile::Remove(partial.c_str());
  return false;
}

}  // namespace Tovrel
