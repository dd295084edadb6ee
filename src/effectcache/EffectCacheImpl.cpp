#include "effectcache/EffectCacheImpl.h"

#include <algorithm>
#include <cassert>
#include <new>
#include <shared_mutex>
#include <utility>
#include <vector>

#include "effectcache/ChangeMark.h"
#include "effectcache/EffectCompression.h"
#include "effectcache/EffectIndex.h"
#include "effectcache/EffectCacheStats.h"
#include "effectcache/EffectPayload.h"
#include "effectcache/UserDataBlock.h"
#include "host/AutoMutex.h"
#include "host/Path.h"
#include "host/TabOutOfRangeException.h"
#include "package/PagedFilePackage.h"
#include "pagefile/FileDataCorruptException.h"
#include "pagefile/FileIOException.h"
#include "pagefile/LittleEndian.h"
#include "pagefile/RollbackJournal.h"
#include "platform/Environment.h"
#include "platform/LocalClock.h"
#include "platform/PlatformFile.h"
#include "platform/WideText.h"
#include "streams/StreamTransfer.h"

namespace Tovrel {

namespace {

static_assert(EffectCacheImpl::kEffectSizeLimit == EffectIndex::kEffectSizeLimit, "one effect size limit");
static_assert(EffectCacheImpl::kEffectNameSizeLimit == EffectIndex::kNameSizeLimit, "one name size limit");

// Drops a package's unsaved changes, so that its end writes nothing.
void AbandonPackageChanges(IDataStreamSet* package) {
  if (auto* paged = dynamic_cast<PagedFilePackage*>(package)) paged->Abandon();
}

// The name's UTF-8 bytes; false for a name that is not well-formed
// Unicode, which has no UTF-8 form of its own (two such names would share
// the replacement character's bytes, and one could find the other's effect).
bool Utf8Name(const WStr& name, std::string* key) {
  const NorvaneString text = name.ToNorvaneString();
  if (!WideText::IsWellFormed(text.Wide())) return false;
  *key = text.ToUTF8();
  return true;
}

// Bytes of the index stream: the entries that can be written.
std::uint64_t IndexSize(const EffectTable& effects) {
  std::uint64_t size = 0;
  for (const EffectTable::Entry& entry : effects) {
    if (EffectIndex::IsWritable(entry.name, entry.record)) size += EffectIndex::EntrySize(entry.name);
  }
  return size;
}

}  // namespace

EffectCacheImpl::EffectCacheImpl(const WStr& cacheFolder, int compressionLevel, std::uint64_t cacheBytesLimit)
    : cacheFolder_(cacheFolder),
      folderPath_(cacheFolder),
      enabled_(true),
      header_{},
      pendingBytes_(0),
      compressionLevel_(EffectCompression::ClampLevel(compressionLevel)),
      cacheBytesLimit_(cacheBytesLimit),
      config_{},
      readOnly_(false),
      search_(*this) {
  if (!folderPath_.isNull()) {
    NorvaneSDK::Util::Path folder(folderPath_.data());
    folder.AddTrailingSeparator();
    folderPath_ = WStr(folder.GetCStr());
    cacheFilePath_ = CacheFileNames::CacheFilePathFor(cacheFolder);
  }
  fileLock_.reset(new CacheFileLock(cacheFilePath_.data()));
  config_.filePath = cacheFilePath_.data();
  journalPath_ = RollbackJournal::PathFor(cacheFilePath_.data());
  config_.cachePageCount = kCachePageCount;
  config_.streamLimit = kStreamLimit;
  if (cacheFilePath_.isNull()) return;  // no file: unusable for good
  SetRemoteStore(Environment::Get(kRemoteVariable).c_str());
  retryOpen_ = true;
  EnsureOpen();
}

bool EffectCacheImpl::InitializeTimeStamp() {
  // Without its shared stamp the cache cannot share the file: it stays
  // unusable until the stamp can be had.
  if (stampReady_) return true;
  try {
    stampReady_ = timeStamp_.Initialize(CacheFileNames::TimeStampName(cacheFilePath_.data()).c_str());
  } catch (const std::exception&) {
    stampReady_ = false;
  }
  return stampReady_;
}

std::atomic<std::uint32_t>& EffectCacheImpl::OpenRetryMilliseconds() {
  static std::atomic<std::uint32_t> interval{kOpenRetryMilliseconds};
  return interval;
}

void EffectCacheImpl::SetOpenRetryInterval(std::uint32_t milliseconds) { OpenRetryMilliseconds() = milliseconds; }

bool EffectCacheImpl::EnsureOpen() {
  if (package_ || !retryOpen_) return static_cast<bool>(package_);
  const std::uint32_t now = LocalClock::TickCount();
  if (openAttempted_ && now - lastOpenAttempt_ < OpenRetryMilliseconds().load()) return false;
  openAttempted_ = true;
  lastOpenAttempt_ = now;
  if (!InitializeTimeStamp()) return false;
  // Taken to read: opening a file that is there and whole writes nothing
  // (what writes says so first), and other processes' searches go on.
  CacheFileLock::Hold hold(*fileLock_, CacheFileLock::Intent::kRead);
  if (!hold.IsOwner()) return false;
  // Only a file proven damaged or foreign (or missing) is replaced; one
  // that could not be read as it is stays untouched for a later try.
  const OpenOutcome opened = OpenCacheFile();
  if (opened == OpenOutcome::kCorrupt && !CreateCacheFile()) DropPackage();
  if (package_) retryOpen_ = false;
  return static_cast<bool>(package_);
}

void EffectCacheImpl::SetRemoteStore(const EffectRemoteStore::Settings* settings) {
  std::lock_guard<ReaderWriterLock> guard(lock_);
  CountRemoteWork();
  remote_.reset(settings != nullptr ? new EffectRemoteStore(*settings) : nullptr);
  remoteCounted_ = EffectRemoteStore::Counts{};
}

void EffectCacheImpl::CountRemoteWork() {
  // What the store did since it was last counted joins the counts that the
  // next save adds to the file.
  if (!remote_) return;
  const EffectRemoteStore::Counts now = remote_->GetCounts();
  counts_.remoteHits += now.hits - remoteCounted_.hits;
  counts_.remoteMisses += now.misses - remoteCounted_.misses;
  counts_.remoteErrors += now.errors - remoteCounted_.errors;
  counts_.remoteBytesIn += now.bytesIn - remoteCounted_.bytesIn;
  counts_.remoteBytesOut += now.bytesOut - remoteCounted_.bytesOut;
  remoteCounted_ = now;
}

bool EffectCacheImpl::SetRemoteStore(const wchar_t* text) {
  if (text == nullptr || *text == L'\0') {
    SetRemoteStore(static_cast<const EffectRemoteStore::Settings*>(nullptr));
    return true;
  }
  EffectRemoteStore::Settings settings;
  if (!EffectRemoteStore::Parse(WideText::ToUtf8(text), &settings)) return false;
  SetRemoteStore(&settings);
  return true;
}

EffectRemoteStore::Counts EffectCacheImpl::GetRemoteCounts() const {
  std::shared_lock<ReaderWriterLock> shared(lock_);
  return remote_ ? remote_->GetCounts() : EffectRemoteStore::Counts{};
}

EffectCacheImpl::~EffectCacheImpl() {
  std::lock_guard<ReaderWriterLock> guard(lock_);
  try {
    FoldSearchCounts();
    SaveToFile();
    profile_.AppendToConfiguredLog();
  } catch (...) {
    DropPackage();
  }
  ResetState();
  {
    // The package ends under the mutex: nothing it does then can race
    // another process's save. It holds no unsaved change (a failed write
    // dropped it already), so its end writes nothing, and other
    // processes' searches go on without the mutex.
    CacheFileLock::Hold hold(*fileLock_, CacheFileLock::Intent::kRead);
    const auto* paged = dynamic_cast<const PagedFilePackage*>(package_.Get());
    const FilePageCache* pages = paged != nullptr ? paged->GetPageCache() : nullptr;
    if (pages != nullptr && pages->IsOpen() && !pages->FileMatchesCache()) fileLock_->WillWrite();
    DropPackage();
  }
}

bool EffectCacheImpl::CacheCompiledEffect(const WStr& name, const unsigned char* data, std::size_t size,
                                          bool permanent) {
  if (data == nullptr || size < 1 || size > kEffectSizeLimit) return false;
  std::string key;
  if (!Utf8Name(name, &key) || key.empty() || key.size() > kEffectNameSizeLimit) return false;
  std::lock_guard<ReaderWriterLock> guard(lock_);
  CheckInvariants();
  if (!EnsureOpen()) return false;
  const std::uint64_t adds = EffectRecord::kSize + (8 + key.size()) + (8 + size);
  // A read-only file never takes the pending effects: they are held up to
  // the size limit, and no more.
  if (readOnly_ && pendingBytes_ + adds > cacheBytesLimit_) return false;
  // The copy is made before anything changes: when memory runs out, the
  // pending map is as it was (never an entry without its bytes, which no
  // index may hold).
  Tab<unsigned char> bytes;
  bytes.Append(static_cast<INT_PTR>(size), data);
  PendingEffect& effect = pendingEffects_[key];
  effect.bytes = std::move(bytes);
  effect.permanent = permanent ? 1 : 0;
  effect.fromRemote = false;
  effect.pushed = false;
  effect.compressed.clear();
  pendingBytes_ += adds;
  ++counts_.cached;
  if (pendingBytes_ >= kAutoSaveThreshold) SaveToFile();
  return true;
}

void EffectCacheImpl::ForceSaveToFile() {
  std::lock_guard<ReaderWriterLock> guard(lock_);
  SaveToFile();
}

std::size_t EffectCacheImpl::GetNumberOfEffectsInFile() const {
  std::shared_lock<ReaderWriterLock> shared(lock_);
  return fileEffects_.Size();
}

std::size_t EffectCacheImpl::GetNumberOfEffectsInMemory() const {
  std::shared_lock<ReaderWriterLock> shared(lock_);
  return pendingEffects_.size();
}

std::uint64_t EffectCacheImpl::GetPendingBytes() const {
  std::shared_lock<ReaderWriterLock> shared(lock_);
  return pendingBytes_;
}

bool EffectCacheImpl::IsEnabled() const {
  std::lock_guard<ReaderWriterLock> guard(lock_);
  // A cache whose file could not be read yet tries again here too: hosts
  // ask this before they use the cache. (The object itself is never const.)
  return const_cast<EffectCacheImpl*>(this)->EnsureOpen() && enabled_;
}

void EffectCacheImpl::SetEnabled(bool enabled) {
  std::lock_guard<ReaderWriterLock> guard(lock_);
  enabled_ = enabled;
}

void EffectCacheImpl::ListCachedEffects(const wchar_t* file) {
  if (file == nullptr) return;
  std::lock_guard<ReaderWriterLock> guard(lock_);
  FileHandle* out = PlatformFile::Open(file, "wb");
  if (out == nullptr) return;
  std::string text = "\xEF\xBB\xBF";
  for (const EffectTable::Entry& entry : fileEffects_) {
    text += "Name: " + entry.name + " Size: " + std::to_string(entry.record.uncompressedSize) +
            " Permanent: " + std::to_string(entry.record.permanent) + "\n";
  }
  PlatformFile::Write(text.data(), 1, text.size(), out);
  PlatformFile::Close(out);
}

bool EffectCacheImpl::SearchCachedEffects(const WStr& name, Tab<unsigned char>& data) {
  std::string key;
  if (name.isNull() || !Utf8Name(name, &key)) return false;
  const bool found = search_.Search(key, data);
  (found ? searchHits_ : searchMisses_).fetch_add(1, std::memory_order_relaxed);
  return found;
}

void EffectCacheImpl::FoldSearchCounts() {
  counts_.hits += searchHits_.exchange(0, std::memory_order_relaxed);
  counts_.misses += searchMisses_.exchange(0, std::memory_order_relaxed);
  profile_.AddDecompression(decodeMilliseconds_.exchange(0, std::memory_order_relaxed));
}

EffectPayload::Result EffectCacheImpl::ReadStoredBytes(const EffectRecord& record,
                                                       std::vector<std::uint8_t>& compressed) {
  EffectPayload::Result result = EffectPayload::Result::kNoStream;
  const std::uint64_t failures = PlatformFile::FailuresOnThisThread();
  try {
    result = EffectPayload::ReadBlock(*package_, record, compressed);
  } catch (const FileDataCorruptException&) {
    result = EffectPayload::Result::kUnreadable;
  }
  if (result != EffectPayload::Result::kOk && PlatformFile::FailuresOnThisThread() != failures) {
    return EffectPayload::Result::kTrouble;
  }
  return result;
}

EffectPayload::Result EffectCacheImpl::ReadStored(const EffectRecord& record, Tab<unsigned char>& data) {
  std::vector<std::uint8_t> compressed;
  const EffectPayload::Result read = ReadStoredBytes(record, compressed);
  return read == EffectPayload::Result::kOk ? EffectPayload::DecompressBlock(record, compressed, data) : read;
}

EffectCacheImpl::OpenOutcome EffectCacheImpl::OpenCacheFile() {
  const std::uint64_t failures = PlatformFile::FailuresOnThisThread();
  try {
    CacheFileLock::Hold hold(*fileLock_, CacheFileLock::Intent::kRead);
    if (!hold.IsOwner()) return OpenOutcome::kUnavailable;
    // Opening makes a missing file, and rolls a dead writer's journal back.
    if (!PlatformFile::Exists(config_.filePath) || PlatformFile::Exists(journalPath_.c_str())) fileLock_->WillWrite();
    if (PlatformFile::OtherOwner(config_.filePath) >= 0) {
      // Named objects belong to their user: another user's hosts lock and
      // stamp the file through objects this process cannot meet, so it
      // reads their file and never writes it.
      if (!OpenReadOnly()) return OpenOutcome::kUnavailable;
    } else {
      PagedFilePackage::LoadFailure why = PagedFilePackage::LoadFailure::kNone;
      RefPtr<PagedFilePackage> opened = PagedFilePackage::Open(config_, &why);
      if (opened) {
        package_ = RefPtr<IDataStreamSet>(opened.Get());
      } else if (why == PagedFilePackage::LoadFailure::kCorrupt) {
        return OpenOutcome::kCorrupt;
      } else if (!OpenReadOnlyIfNotWritable()) {
        return OpenOutcome::kUnavailable;
      }
    }
    const OpenOutcome loaded = LoadView();
    if (loaded != OpenOutcome::kOpened) DropPackage();
    return loaded;
  } catch (const std::bad_alloc&) {
    DropPackage();
    return OpenOutcome::kUnavailable;
  } catch (const std::exception&) {
    DropPackage();
    return PlatformFile::FailuresOnThisThread() != failures ? OpenOutcome::kUnavailable : OpenOutcome::kCorrupt;
  }
}

bool EffectCacheImpl::OpenReadOnlyIfNotWritable() {
  // Only a file that opens for reading and not for update: any other
  // failure is a file the cache may create afresh.
  FileHandle* probe = PlatformFile::Open(config_.filePath, "r+b");
  if (probe != nullptr) {
    PlatformFile::Close(probe);
    return false;
  }
  probe = PlatformFile::Open(config_.filePath, "rb");
  if (probe == nullptr) return false;
  PlatformFile::Close(probe);
  return OpenReadOnly();
}

bool EffectCacheImpl::OpenReadOnly() {
  RefPtr<PagedFilePackage> package(new PagedFilePackage(config_));
  if (!package->LoadReadOnly()) return false;
  package_ = RefPtr<IDataStreamSet>(package.Get());
  readOnly_ = true;
  return true;
}

bool EffectCacheImpl::IsReadOnly() const {
  std::shared_lock<ReaderWriterLock> shared(lock_);
  return readOnly_;
}

bool EffectCacheImpl::CreateCacheFile() {
  if (readOnly_) return false;  // a file that may not be written is never replaced
  ResetState();
  try {
    CacheFileLock::Hold hold(*fileLock_);
    if (!hold.IsOwner()) return false;
    DropPackage();
    package_ = CreateFilePackage(config_);
    if (!package_) return false;
    timeStamp_.UpdateTimeStamp();
    header_ = EffectCacheHeader::Empty();
    header_.indexStreamId = package_->CreateStream(1);
    if (!package_->OpenStream(header_.indexStreamId)) throw FileIOException();
    const ChangeMark mark = ChangeMark{}.Next();
    if (!WriteHeader() || !ChangeMark::WriteLast(*package_, mark) || !package_->Save()) throw FileIOException();
    knownMark_ = mark;
    staleView_ = false;
    return true;
  } catch (const std::exception&) {
    AbandonWrite();
    return false;
  }
}

bool EffectCacheImpl::WriteHeader() {
  if (!package_) return false;
  std::uint8_t* payload = UserDataBlock::Ensure(*package_, EffectCacheHeader::kTag, EffectCacheHeader::kPayloadSize);
  if (payload == nullptr) return false;
  header_.effectCount = fileEffects_.Size();
  header_.Encode(payload);
  return true;
}

EffectCacheImpl::OpenOutcome EffectCacheImpl::LoadView() {
  // Read into copies and taken as a whole, so that a load that fails half
  // way (a failed read, no memory) leaves no half-loaded index in use.
  const std::uint64_t failures = PlatformFile::FailuresOnThisThread();
  const IDataStreamSet& package = *package_;
  EffectCacheHeader header{};
  if (!EffectCacheHeader::Read(package.GetUserData(), package.GetUserDataSize(), header)) return OpenOutcome::kCorrupt;
  RefPtr<IDataStream> stream = package_->OpenStream(header.indexStreamId);
  const auto* paged = dynamic_cast<const PagedFilePackage*>(&package);
  const std::uint64_t fileBytes = paged != nullptr ? paged->GetFileLength() : ~std::uint64_t{0};
  EffectTable table;
  if (!EffectIndex::ReadAll(stream, header.effectCount, fileBytes, table)) {
    return PlatformFile::FailuresOnThisThread() != failures ? OpenOutcome::kUnavailable : OpenOutcome::kCorrupt;
  }
  stream.Reset();
  header_ = header;
  fileEffects_.Swap(table);
  knownMark_ = ChangeMark::Read(package);
  staleView_ = false;
  return TrimAfterLoad() ? OpenOutcome::kOpened : OpenOutcome::kUnavailable;
}

bool EffectCacheImpl::TrimAfterLoad() {
  if (readOnly_) return true;  // nothing is trimmed from a file that may not be written
  try {
    std::uint64_t removed = 0;
    const std::uint64_t limit = GetSizeLimit();
    if (package_ && package_->GetTotalStreamSize() >= limit) fileLock_->WillWrite();
    TrimToLimit(limit, &removed);
    counts_.trimmed += removed;
    // A trim changed the file: make it durable now, under the mutex, as a
    // save would, so that the package holds no unsaved change.
    if (removed == 0 || SaveDirectory()) return true;
  } catch (const std::bad_alloc&) {
    AbandonWrite();
    throw;
  } catch (const std::exception&) {
  }
  AbandonWrite();  // the file keeps its last completed save
  return false;
}

bool EffectCacheImpl::SaveIndex() {
  if (!package_) return false;
  fileEffects_.FoldUses();  // the searches' uses go into the index
  // An index with no entries keeps one byte: a stream is never empty.
  const std::uint64_t size = std::max<std::uint64_t>(IndexSize(fileEffects_), 1);
  RefPtr<IDataStream> stream;
  if (header_.indexStreamId != EffectCacheHeader::kNoIndex) {
    stream = package_->OpenStream(header_.indexStreamId);
    if (stream && stream->GetSize() != size) {
      stream.Reset();
      package_->RemoveStream(header_.indexStreamId);
    }
  }
  if (!stream) {
    header_.indexStreamId = package_->CreateStream(size);
    stream = package_->OpenStream(header_.indexStreamId);
    if (!stream) return false;
  }
  for (const EffectTable::Entry& entry : fileEffects_) {
    if (!EffectIndex::IsWritable(entry.name, entry.record)) continue;
    if (!EffectIndex::WriteEntry(stream, entry.name, entry.record)) return false;
  }
  return true;
}

bool EffectCacheImpl::WritePendingEffects() {
  if (!package_) return false;
  const std::uint64_t room = std::min(PlatformFile::AvailableBytes(folderPath_.data()), cacheBytesLimit_);
  if (room < pendingBytes_) {
    DiscardPending();  // too little disk: the effects are dropped and the save succeeds
    return true;
  }
  const std::uint64_t limit = GetSizeLimit();
  std::uint64_t trimmed = 0;
  const bool fits = limit >= pendingBytes_ && TrimToLimit(limit - pendingBytes_, &trimmed);
  counts_.trimmed += trimmed;
  if (!fits) {
    DiscardPending();
    return true;
  }
  std::vector<EffectBatchCompressor::Result> compressed = CompressPending();
  // The index changes as one batch, in name order (the pending map's own),
  // whether every effect was written or not.
  std::vector<EffectTable::Change> changes;
  changes.reserve(pendingEffects_.size());
  bool written = true;
  std::size_t i = 0;
  try {
    for (const auto& entry : pendingEffects_) {
      written = WritePendingEffect(entry.first, entry.second, compressed[i++], changes);
      if (!written) break;
    }
  } catch (...) {
    fileEffects_.Apply(std::move(changes));  // streams already replaced leave the index
    throw;
  }
  fileEffects_.Apply(std::move(changes));
  if (written) {
    CollectRemotePushes(compressed);
    DiscardPending();
  }
  return written;
}

std::vector<EffectBatchCompressor::Result> EffectCacheImpl::CompressPending() {
  // Every effect is compressed before the first is written: compression
  // runs on several cores, and the writes find their bytes ready. Effects
  // fetched from the remote store keep the compressed bytes they came in.
  std::vector<EffectBatchCompressor::Job> jobs;
  jobs.reserve(pendingEffects_.size());
  for (const auto& entry : pendingEffects_) {
    const PendingEffect& effect = entry.second;
    if (!effect.compressed.empty()) continue;
    jobs.push_back({effect.bytes.Count() ? effect.bytes.Addr(0) : nullptr,
                    static_cast<std::uint64_t>(effect.bytes.Count())});
  }
  std::vector<EffectBatchCompressor::Result> done = EffectBatchCompressor::CompressAll(jobs, compressionLevel_);
  if (jobs.size() == pendingEffects_.size()) return done;  // none came compressed
  std::vector<EffectBatchCompressor::Result> results;
  results.reserve(pendingEffects_.size());
  std::size_t next = 0;
  for (auto& entry : pendingEffects_) {
    PendingEffect& effect = entry.second;
    if (effect.compressed.empty()) {
      results.push_back(std::move(done[next++]));
    } else {
      EffectBatchCompressor::Result kept;
      kept.ok = true;
      kept.compressed.swap(effect.compressed);
      results.push_back(std::move(kept));
    }
  }
  return results;
}

void EffectCacheImpl::CollectRemotePushes(std::vector<EffectBatchCompressor::Result>& compressed) {
  // The bytes are written: they move to the pushes rather than being copied.
  remotePushes_.clear();
  if (!remote_ || remote_->GetSettings().readOnly) return;
  std::size_t i = 0;
  for (const auto& entry : pendingEffects_) {
    EffectBatchCompressor::Result& result = compressed[i++];
    if (entry.second.fromRemote || !result.ok) continue;
    remotePushes_.push_back(RemotePush{entry.first, entry.second.permanent != 0,
                                       static_cast<std::uint64_t>(entry.second.bytes.Count()),
                                       std::move(result.compressed)});
  }
}

bool EffectCacheImpl::WritePendingEffect(const std::string& name, const PendingEffect& effect,
                                         const EffectBatchCompressor::Result& compressed,
                                         std::vector<EffectTable::Change>& changes) {
  if (const EffectRecord* stored = fileEffects_.Find(name)) {
    const std::uint64_t old = stored->streamId;
    changes.push_back(EffectTable::Change{name, EffectRecord{}, true});
    package_->RemoveStream(old);
  }
  if (!compressed.ok) return false;
  const auto n = static_cast<std::uint64_t>(effect.bytes.Count());
  const auto c = static_cast<std::uint64_t>(compressed.compressed.size());
  profile_.AddCompression(n, c, compressed.milliseconds);
  std::uint64_t id = 0;
  if (!WriteEffectStream(compressed.compressed.data(), c, &id)) return false;
  const EffectRecord record{id, static_cast<std::uint32_t>(name.size()), static_cast<std::uint32_t>(n),
                            effect.permanent, CacheTimeStamp::Now(), static_cast<std::uint32_t>(c), 0};
  if (!changes.empty() && changes.back().name == name) {
    changes.back() = EffectTable::Change{name, record, false};
  } else {
    changes.push_back(EffectTable::Change{name, record, false});
  }
  return true;
}

bool EffectCacheImpl::WriteEffectStream(const std::uint8_t* compressed, std::uint64_t size, std::uint64_t* id) {
  // An effect's stream: its compressed bytes as a length-prefixed block.
  *id = package_->CreateStream(size + 8);
  RefPtr<IDataStream> stream = package_->OpenStream(*id);
  return stream && StreamTransfer::WriteBytes(compressed, size, stream);
}

bool EffectCacheImpl::RefreshIfChanged() {
  // A journal beside the file under the mutex is a dead writer's: its save
  // never completed. The reload rolls it back before it reads anything. A
  // read-only view cannot roll it back, and reads through it already.
  const bool interrupted = !readOnly_ && PlatformFile::Exists(journalPath_.c_str());
  // The stamp's news is kept until a reload succeeds: a reload that fails
  // is tried again at the next look.
  if (timeStamp_.IsChanged() || interrupted) staleView_ = true;
  // A writer that died after its commit point changed the file without
  // renewing the stamp: when anyone wrote since this object last held the
  // lock, the file's change mark must still be the one it knows.
  if (!staleView_ && fileLock_->HeldElsewhereSince() && !FileMarkIsKnown()) staleView_ = true;
  if (!staleView_) return true;
  fileLock_->WillWrite();  // a reload may roll a journal back
  return ReloadView();
}

bool EffectCacheImpl::ReloadView() {
  if (!package_) return false;
  try {
    return package_->Reload() && LoadView() == OpenOutcome::kOpened;
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const NorvaneSDK::Util::TabOutOfRangeException&) {
    throw;
  } catch (const std::exception&) {
    return false;  // the view stays stale: nothing is written from it
  }
}

bool EffectCacheImpl::MakeViewCurrent() {
  // The shared stamp tells of other processes' saves, but it can be lost;
  // the file's change mark cannot. A view that the mark does not prove is
  // loaded again before anything is written.
  if (!RefreshIfChanged()) return false;
  if (readOnly_ || FileMarkIsKnown()) return true;
  staleView_ = true;
  return ReloadView();
}

bool EffectCacheImpl::FileMarkIsKnown() {
  auto* paged = dynamic_cast<PagedFilePackage*>(package_.Get());
  if (paged == nullptr || !knownMark_.present) return false;
  std::uint8_t block[ChangeMark::kBlockSize];
  try {
    if (!paged->ReadSavedUserDataTail(block, sizeof block)) return false;
  } catch (const std::exception&) {
    return false;
  }
  return knownMark_.Proves(ChangeMark::FromBlock(block));
}

bool EffectCacheImpl::TrimToLimit(std::uint64_t limit, std::uint64_t* removed) {
  if (!package_) return false;
  if (package_->GetTotalStreamSize() < limit) return true;  // nothing to remove: no need to sort
  const std::vector<std::size_t> candidates = fileEffects_.OldestFirst(true);
  std::vector<bool> gone(fileEffects_.Size(), false);
  try {
    for (std::size_t i : candidates) {
      if (package_->GetTotalStreamSize() < limit) break;
      try {
        package_->RemoveStream(fileEffects_.At(i).record.streamId);
      } catch (const FileDataCorruptException&) {
        continue;  // a stream whose pages are not its own alone is left, and its entry with it
      }
      gone[i] = true;
      if (removed != nullptr) ++*removed;
    }
  } catch (...) {
    fileEffects_.EraseMarked(gone);  // the streams already removed leave the index too
    throw;
  }
  fileEffects_.EraseMarked(gone);
  return package_->GetTotalStreamSize() < limit;
}

std::uint64_t EffectCacheImpl::GetSizeLimit() const {
  // The bytes the file already stores are on the disk already: trimming
  // them frees no space (their pages stay in the file), so they count as
  // room.
  const std::uint64_t stored = package_ ? package_->GetTotalStreamSize() : 0;
  const std::uint64_t free = PlatformFile::AvailableBytes(folderPath_.data());
  return std::min(free + stored < free ? ~std::uint64_t{0} : free + stored, cacheBytesLimit_);
}

bool EffectCacheImpl::SaveToFile() {
  if (readOnly_) {
    PushPendingToRemote();
    return true;
  }
  const bool saved = SaveToFileUnderMutex();
  std::vector<RemotePush> pushes;
  pushes.swap(remotePushes_);
  if (saved) PushToRemote(pushes);
  return saved;
}

bool EffectCacheImpl::SaveToFileUnderMutex() {
  if (!package_) return true;
  CacheFileLock::Hold hold(*fileLock_, CacheFileLock::Intent::kRead);
  if (!hold.IsOwner()) return false;
  if (pendingEffects_.empty() && damaged_.empty()) return true;
  fileLock_->WillWrite();
  // Nothing is written from a view that is not the file's: when it cannot
  // be brought up to date, the effects stay pending for the next save.
  if (!MakeViewCurrent() || !package_) return false;
  try {
    DropDamagedEntries();
    if (!WritePendingEffects() || !SaveDirectory()) throw FileIOException();
    return true;
  } catch (const std::exception&) {
    AbandonWrite();
    return false;
  }
}

void EffectCacheImpl::PushPendingToRemote() {
  // A read-only file keeps its effects pending; a store that takes them
  // gets each one once.
  if (!package_ || !remote_ || remote_->GetSettings().readOnly) return;
  std::vector<EffectBatchCompressor::Job> jobs;
  std::vector<PendingEffect*> effects;
  std::vector<const std::string*> names;
  for (auto& entry : pendingEffects_) {
    PendingEffect& effect = entry.second;
    if (effect.fromRemote || effect.pushed || effect.bytes.Count() == 0) continue;
    jobs.push_back({effect.bytes.Addr(0), static_cast<std::uint64_t>(effect.bytes.Count())});
    effects.push_back(&effect);
    names.push_back(&entry.first);
  }
  if (jobs.empty()) return;
  const std::vector<EffectBatchCompressor::Result> compressed =
      EffectBatchCompressor::CompressAll(jobs, compressionLevel_);
  for (std::size_t i = 0; i < jobs.size(); ++i) {
    if (!compressed[i].ok) continue;
    effects[i]->pushed = remote_->Store(*names[i], effects[i]->permanent != 0, jobs[i].size,
                                        compressed[i].compressed.data(), compressed[i].compressed.size());
  }
}

void EffectCacheImpl::PushToRemote(std::vector<RemotePush>& pushes) {
  // Without the file mutex: other processes never wait on the network.
  if (!remote_) return;
  for (const RemotePush& push : pushes) {
    remote_->Store(push.name, push.permanent, push.size, push.compressed.data(), push.compressed.size());
  }
}

bool EffectCacheImpl::SaveDirectory() {
  if (!SaveIndex() || !WriteHeader()) return false;
  return SaveCounts(false);
}

bool EffectCacheImpl::SaveCounts(bool zero) {
  // A block of the statistics' tag that is not theirs is left alone, and
  // the counts with it: they never stop a save.
  CountRemoteWork();
  FoldSearchCounts();
  if (counts_.AnyCounts() || zero) EffectCacheStats::AddTo(*package_, counts_, CacheTimeStamp::Now(), zero);
  const ChangeMark next = knownMark_.Next();
  if (!ChangeMark::WriteLast(*package_, next) || !package_->Save()) return false;
  knownMark_ = next;
  counts_ = EffectCacheStats{};
  timeStamp_.UpdateTimeStamp();
  return true;
}

bool EffectCacheImpl::StoreCopies(std::vector<StoredCopy>& copies, std::uint64_t* stored, std::uint64_t* bytes) {
  std::lock_guard<ReaderWriterLock> guard(lock_);
  CheckInvariants();
  if (stored != nullptr) *stored = 0;
  if (bytes != nullptr) *bytes = 0;
  std::uint64_t written = 0;
  if (!EnsureOpen() || readOnly_) return false;
  CacheFileLock::Hold hold(*fileLock_);
  if (!hold.IsOwner() || !MakeViewCurrent() || !package_) return false;
  fileEffects_.FoldUses();
  std::sort(copies.begin(), copies.end(),
            [](const StoredCopy& a, const StoredCopy& b) { return EffectNameOrder()(a.name, b.name); });
  std::vector<EffectTable::Change> changes;
  try {
    for (const StoredCopy& copy : copies) {
      const EffectRecord* mine = fileEffects_.Find(copy.name);
      if (mine != nullptr && !(mine->lastUsed < copy.record.lastUsed)) continue;
      if (mine != nullptr) package_->RemoveStream(mine->streamId);
      const auto size = static_cast<std::uint64_t>(copy.compressed.Count());
      EffectRecord record = copy.record;
      record.nameLength = static_cast<std::uint32_t>(copy.name.size());
      record.compressedSize = static_cast<std::uint32_t>(size);
      if (!WriteEffectStream(size ? copy.compressed.Addr(0) : nullptr, size, &record.streamId)) {
        throw FileIOException();
      }
      changes.push_back(EffectTable::Change{copy.name, record, false});
      written += size;
    }
    const std::uint64_t count = changes.size();
    fileEffects_.Apply(std::move(changes));
    if (count > 0 && !SaveDirectory()) throw FileIOException();
    if (stored != nullptr) *stored = count;
    if (bytes != nullptr) *bytes = written;
    return true;
  } catch (const std::bad_alloc&) {
    AbandonWrite();  // a half-done change is never saved later
    throw;
  } catch (const std::exception&) {
    fileEffects_.Apply(std::move(changes));
    AbandonWrite();
    return false;
  }
}

bool EffectCacheImpl::ChangeUnderFileMutex(const std::function<bool()>& change) {
  if (!EnsureOpen() || readOnly_) return false;
  CacheFileLock::Hold hold(*fileLock_);
  if (!hold.IsOwner() || !MakeViewCurrent() || !package_) return false;
  try {
    if (!change()) throw FileIOException();
    return true;
  } catch (const std::bad_alloc&) {
    AbandonWrite();  // a half-done change is never saved later
    throw;
  } catch (const std::exception&) {
    AbandonWrite();
    return false;
  }
}

bool EffectCacheImpl::ZeroStatistics() {
  std::lock_guard<ReaderWriterLock> guard(lock_);
  FoldSearchCounts();
  counts_ = EffectCacheStats{};
  return ChangeUnderFileMutex([this] { return SaveCounts(true); });
}

bool EffectCacheImpl::CompactFile(PagedFilePackage::CompactResult* result) {
  std::lock_guard<ReaderWriterLock> guard(lock_);
  CheckInvariants();
  return ChangeUnderFileMutex([this, result] {
    auto* paged = dynamic_cast<PagedFilePackage*>(package_.Get());
    if (paged == nullptr) return false;
    // A compact file is left exactly as it is; any other gets a new mark
    // in the compaction's own save.
    const bool changes = paged->NeedsCompaction();
    const ChangeMark next = knownMark_.Next();
    if (changes && !ChangeMark::WriteLast(*package_, next)) return false;
    if (!paged->Compact(result)) return false;
    if (!changes) return true;
    knownMark_ = next;
    timeStamp_.UpdateTimeStamp();
    return true;
  });
}

bool EffectCacheImpl::RemoveStored(const RemovalChoice& choose, bool dryRun, Removed* removed) {
  std::lock_guard<ReaderWriterLock> guard(lock_);
  CheckInvariants();
  if (removed != nullptr) *removed = Removed{};
  return ChangeUnderFileMutex([&] {
    const std::vector<bool> gone = ChooseRemovals(choose, removed);
    if (dryRun || std::find(gone.begin(), gone.end(), true) == gone.end()) return true;
    for (std::size_t i = 0; i < gone.size(); ++i) {
      if (gone[i]) package_->RemoveStream(fileEffects_.At(i).record.streamId);
    }
    fileEffects_.EraseMarked(gone);
    return SaveDirectory();
  });
}

std::vector<bool> EffectCacheImpl::ChooseRemovals(const RemovalChoice& choose, Removed* removed) {
  std::uint64_t stored = 0;
  for (const EffectTable::Entry& entry : fileEffects_) stored += entry.record.compressedSize;
  std::vector<bool> gone(fileEffects_.Size(), false);
  Removed chosen;
  for (std::size_t i : fileEffects_.OldestFirst(false)) {
    const EffectTable::Entry& entry = fileEffects_.At(i);
    if (!choose(entry, chosen, stored)) continue;
    gone[i] = true;
    ++chosen.effects;
    chosen.storedBytes += entry.record.compressedSize;
  }
  if (removed != nullptr) *removed = chosen;
  return gone;
}

void EffectCacheImpl::DropDamagedEntries() {
  for (const auto& damaged : damaged_) {
    const EffectRecord* entry = fileEffects_.Find(damaged.first);
    // Another process may have stored the name afresh since: only the
    // entry that was found damaged goes, and only when its bytes, read
    // again through the view this save writes from, still fail.
    if (entry == nullptr || entry->streamId != damaged.second) continue;
    Tab<unsigned char> data;
    const EffectPayload::Result again = ReadStored(*entry, data);
    if (again == EffectPayload::Result::kOk || again == EffectPayload::Result::kTrouble) continue;
    try {
      package_->RemoveStream(entry->streamId);
    } catch (const FileDataCorruptException&) {
      // A stream too damaged to remove stays, unnamed; the package is unchanged.
    }
    fileEffects_.Erase(damaged.first);
  }
  damaged_.clear();
}

void EffectCacheImpl::DiscardPending() {
  pendingEffects_.clear();
  pendingBytes_ = 0;
}

void EffectCacheImpl::ResetState() {
  FoldSearchCounts();
  counts_ = EffectCacheStats{};
  fileEffects_.Clear();
  damaged_.clear();
  DiscardPending();
  enabled_ = true;
  header_ = EffectCacheHeader{};
  knownMark_ = ChangeMark{};
  profile_.Reset();
}

void EffectCacheImpl::AbandonWrite() {
  DropPackage();
  // The failed write may have passed its commit point (the file then holds
  // it) or left other processes' views in doubt: they all reload.
  if (stampReady_) timeStamp_.UpdateTimeStamp();
}

void EffectCacheImpl::DropPackage() {
  if (package_) AbandonPackageChanges(package_.Get());
  package_.Reset();
}

void EffectCacheImpl::CheckInvariants() const {
  assert(compressionLevel_ >= 0 && compressionLevel_ <= 9);
  assert(fileLock_ != nullptr);
#ifndef NDEBUG
  for (const auto& pending : pendingEffects_) {
    assert(pending.second.bytes.Count() >= 1 && static_cast<std::uint64_t>(pending.second.bytes.Count()) <= kEffectSizeLimit);
  }
#endif
}

}  // namespace Tovrel
