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
#include "effectcache/UnsavedCounts.h"
#include "effectcache/EffectCacheStats.h"
#include "host/Path.h"
#include "package/PagedFilePackage.h"
#include "pagefile/FileIOException.h"
#include "pagefile/RollbackJournal.h"
#include "platform/Environment.h"
#include "platform/PlatformFile.h"
#include "platform/WideText.h"

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
      view_(*this),
      saver_(*this),
      search_(*this),
      worker_([this] { saver_.SaveInBackground(); }) {
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
  backgroundSaving_ = Environment::Get(kBackgroundVariable) == L"1";
  retryOpen_ = true;
  view_.EnsureOpen();
}


std::atomic<std::uint32_t>& EffectCacheImpl::OpenRetryMilliseconds() {
  static std::atomic<std::uint32_t> interval{kOpenRetryMilliseconds};
  return interval;
}

void EffectCacheImpl::SetOpenRetryInterval(std::uint32_t milliseconds) { OpenRetryMilliseconds() = milliseconds; }


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
  if (now.errors != remoteCounted_.errors) unnotedFailure_ = remote_->GetLastFailure();
  remoteCounted_ = now;
}

void EffectCacheImpl::NoteRemoteFailure() {
  if (unnotedFailure_.message.empty() || readOnly_ || cacheFilePath_.isNull()) return;
  RemoteErrorNote::Write(RemoteErrorNote::PathFor(cacheFilePath_.data()), unnotedFailure_);
  unnotedFailure_ = RemoteErrorNote{};
}

bool EffectCacheImpl::SetRemoteStore(const wchar_t* text) {
  if (text == nullptr || *text == L'\0') {
    SetRemoteStore(static_cast<const EffectRemoteStore::Settings*>(nullptr));
    return true;
  }
  EffectRemoteStore::Settings settings;
  if (!RemoteStoreSettings::Parse(WideText::ToUtf8(text), &settings)) return false;
  SetRemoteStore(&settings);
  return true;
}

EffectRemoteStore::Counts EffectCacheImpl::GetRemoteCounts() const {
  std::shared_lock<ReaderWriterLock> shared(lock_);
  return remote_ ? remote_->GetCounts() : EffectRemoteStore::Counts{};
}

EffectCacheImpl::~EffectCacheImpl() {
  // The saves asked of the worker end first; what is still queued is
  // saved here, as pending effects are.
  worker_.Stop();
  std::lock_guard<ReaderWriterLock> guard(lock_);
  queue_.MoveWaitingInto(pendingEffects_, &pendingBytes_);
  EffectCacheStats unsaved;
  try {
    FoldSearchCounts();
    saver_.SaveToFile();
    // No other thread uses the object now: the lock held costs no one.
    saver_.PushOwed();
    profile_.AppendToConfiguredLog();
    // A process that never saved (it only found effects) keeps its counts
    // in the counts file beside the cache file.
    CountRemoteWork();
    FoldSearchCounts();
    if (!readOnly_ && !cacheFilePath_.isNull()) unsaved = counts_;
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
    if (hold.IsOwner() && unsaved.AnyCounts()) {
      UnsavedCounts::Add(UnsavedCounts::PathFor(cacheFilePath_.data()), unsaved);
    }
    if (hold.IsOwner()) NoteRemoteFailure();
  }
}

bool EffectCacheImpl::CacheCompiledEffect(const WStr& name, const unsigned char* data, std::size_t size,
                                          bool permanent) {
  if (data == nullptr || size < 1 || size > kEffectSizeLimit) return false;
  std::string key;
  if (!Utf8Name(name, &key) || key.empty() || key.size() > kEffectNameSizeLimit) return false;
  const std::uint64_t adds = EffectRecord::kSize + (8 + key.size()) + (8 + size);
  if (!backgroundSaving_.load() || !queueOpen_.load()) {
    const Placed placed = CachePending(key, data, size, permanent, adds);
    saver_.PushOwed();  // what a save it made owes the remote store
    if (placed != Placed::kQueue) return placed == Placed::kPending;
  }
  return QueueEffect(key, data, size, permanent, adds);
}

EffectCacheImpl::Placed EffectCacheImpl::CachePending(const std::string& key, const unsigned char* data,
                                                      std::size_t size, bool permanent, std::uint64_t adds) {
  std::lock_guard<ReaderWriterLock> guard(lock_);
  CheckInvariants();
  if (!view_.EnsureOpen()) return Placed::kRefused;
  if (backgroundSaving_.load() && queueOpen_.load()) return Placed::kQueue;
  AdoptQueued();
  // A read-only file never takes the pending effects: they are held up to
  // the size limit, and no more.
  if (readOnly_ && pendingBytes_ + adds > cacheBytesLimit_) return Placed::kRefused;
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
  if (pendingBytes_ >= kAutoSaveThreshold) saver_.SaveToFile();
  return Placed::kPending;
}

bool EffectCacheImpl::QueueEffect(const std::string& key, const unsigned char* data, std::size_t size,
                                  bool permanent, std::uint64_t adds) {
  // The host's thread copies the effect and goes on: the worker compresses
  // and writes it. It waits only while the memory queued passes the bound.
  PendingEffect effect;
  effect.bytes.Append(static_cast<INT_PTR>(size), data);
  effect.permanent = permanent ? 1 : 0;
  if (queue_.Add(key, std::move(effect), adds, kAutoSaveThreshold)) worker_.Request();
  queue_.WaitUnderBound(backgroundBound_.load());
  return true;
}

void EffectCacheImpl::AdoptQueued() {
  if (!backgroundSaving_.load()) queue_.MoveWaitingInto(pendingEffects_, &pendingBytes_);
}

void EffectCacheImpl::NoteQueueOpen() { queueOpen_ = package_ && !readOnly_; }

void EffectCacheImpl::SetBackgroundSaving(bool on) {
  if (!on) worker_.WaitIdle();
  std::lock_guard<ReaderWriterLock> guard(lock_);
  backgroundSaving_ = on;
  AdoptQueued();
}

void EffectCacheImpl::ForceSaveToFile() {
  if (backgroundSaving_.load()) {
    worker_.RequestAndWait();
    return;
  }
  {
    std::lock_guard<ReaderWriterLock> guard(lock_);
    AdoptQueued();
    saver_.SaveToFile();
  }
  saver_.PushOwed();
}

std::size_t EffectCacheImpl::GetNumberOfEffectsInFile() const {
  std::shared_lock<ReaderWriterLock> shared(lock_);
  return fileEffects_.Size();
}

std::size_t EffectCacheImpl::GetNumberOfEffectsInMemory() const {
  // Each effect once: a name pending and queued (or queued and being
  // saved) is one effect, which the save under way moves into the index
  // under lock_ at the moment the queue lets it go.
  std::size_t inMemory = 0;
  std::size_t inFile = 0;
  CountEffects(&inMemory, &inFile);
  return inMemory;
}

void EffectCacheImpl::CountEffects(std::size_t* inMemory, std::size_t* inFile) const {
  std::shared_lock<ReaderWriterLock> shared(lock_);
  *inMemory = pendingEffects_.size() + queue_.CountBeside(pendingEffects_);
  *inFile = fileEffects_.Size();
}

std::uint64_t EffectCacheImpl::GetPendingBytes() const {
  std::shared_lock<ReaderWriterLock> shared(lock_);
  return pendingBytes_ + queue_.Bytes();
}

bool EffectCacheImpl::IsEnabled() const {
  std::lock_guard<ReaderWriterLock> guard(lock_);
  // A cache whose file could not be read yet tries again here too: hosts
  // ask this before they use the cache. (The object itself is never const.)
  return const_cast<EffectCacheImpl*>(this)->view_.EnsureOpen() && enabled_;
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
  counts_.cached += queue_.TakeAdded();
  counts_.hits += searchHits_.exchange(0, std::memory_order_relaxed);
  counts_.misses += searchMisses_.exchange(0, std::memory_order_relaxed);
  profile_.AddDecompression(decodeMilliseconds_.exchange(0, std::memory_order_relaxed));
}


bool EffectCacheImpl::IsReadOnly() const {
  std::shared_lock<ReaderWriterLock> shared(lock_);
  return readOnly_;
}

CacheWriteAccess::Why EffectCacheImpl::ReadOnlyWhy() const {
  std::shared_lock<ReaderWriterLock> shared(lock_);
  return readOnlyWhy_;
}


bool EffectCacheImpl::StoreCopies(std::vector<StoredCopy>& copies, std::uint64_t* stored, std::uint64_t* bytes) {
  std::lock_guard<ReaderWriterLock> guard(lock_);
  CheckInvariants();
  if (stored != nullptr) *stored = 0;
  if (bytes != nullptr) *bytes = 0;
  if (!view_.EnsureOpen() || readOnly_) return false;
  CacheFileLock::Hold hold(*fileLock_);
  if (!hold.IsOwner() || !view_.MakeViewCurrent() || !package_) return false;
  return WriteCopies(copies, stored, bytes);
}

bool EffectCacheImpl::WriteCopies(std::vector<StoredCopy>& copies, std::uint64_t* stored, std::uint64_t* bytes) {
  std::uint64_t written = 0;
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
      if (!saver_.WriteEffectStream(size ? copy.compressed.Addr(0) : nullptr, size, &record.streamId)) {
        throw FileIOException();
      }
      changes.push_back(EffectTable::Change{copy.name, record, false});
      written += size;
    }
    const std::uint64_t count = changes.size();
    fileEffects_.Apply(std::move(changes));
    changes.clear();  // applied: a failed save below must not apply them again
    if (count > 0 && !saver_.SaveDirectory()) throw FileIOException();
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

bool EffectCacheImpl::SalvageFile(EffectCacheSalvage::Summary* summary) {
  std::lock_guard<ReaderWriterLock> guard(lock_);
  CheckInvariants();
  if (!view_.EnsureOpen() || readOnly_) return false;
  if (!salvaged_) {
    CacheFileLock::Hold hold(*fileLock_);
    if (!hold.IsOwner() || !view_.MakeViewCurrent() || !package_) return false;
    auto* paged = dynamic_cast<PagedFilePackage*>(package_.Get());
    if (paged == nullptr) return false;
    const std::uint64_t failures = PlatformFile::FailuresOnThisThread();
    EffectCacheSalvage::Found found;
    try {
      found = EffectCacheSalvage::CollectFrom(*paged);
    } catch (const std::exception&) {
      return false;
    }
    if (PlatformFile::FailuresOnThisThread() != failures || !view_.ReplaceWith(found)) return false;
  }
  *summary = lastSalvage_;
  return true;
}

bool EffectCacheImpl::LastSalvage(EffectCacheSalvage::Summary* summary) const {
  std::shared_lock<ReaderWriterLock> shared(lock_);
  if (salvaged_) *summary = lastSalvage_;
  return salvaged_;
}

bool EffectCacheImpl::ChangeUnderFileMutex(const std::function<bool()>& change) {
  if (!view_.EnsureOpen() || readOnly_) return false;
  CacheFileLock::Hold hold(*fileLock_);
  if (!hold.IsOwner() || !view_.MakeViewCurrent() || !package_) return false;
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
  // The counts of processes that never saved go too.
  return ChangeUnderFileMutex([this] {
    return saver_.SaveCounts(true) && UnsavedCounts::Remove(UnsavedCounts::PathFor(cacheFilePath_.data())) &&
           RemoteErrorNote::Remove(RemoteErrorNote::PathFor(cacheFilePath_.data()));
  });
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
    // What maintenance takes out counts as trimmed in the statistics, as a
    // host's own trims do.
    counts_.trimmed += static_cast<std::uint64_t>(std::count(gone.begin(), gone.end(), true));
    return saver_.SaveDirectory();
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
  queueOpen_ = false;
}

void EffectCacheImpl::CheckInvariants() const {
  assert(compressionLevel_ >= 0 && compressionLevel_ <= 9);
  assert(fileLock_ != nullptr);
  assert(queueOpen_.load() == (package_ && !readOnly_));
  assert(readOnly_ == (readOnlyWhy_ != CacheWriteAccess::Why::kWritable));
#ifndef NDEBUG
  for (const auto& pending : pendingEffects_) {
    assert(pending.second.Size() >= 1 && pending.second.Size() <= kEffectSizeLimit);
    assert(pending.second.bytes.Count() == 0 || pending.second.heldSize == 0);
  }
#endif
}

}  // namespace Tovrel
