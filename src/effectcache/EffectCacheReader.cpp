#include "effectcache/EffectCacheReader.h"

#include <exception>

#include "effectcache/EffectCacheHeader.h"
#include "effectcache/EffectCacheImpl.h"
#include "effectcache/EffectIndex.h"
#include "pagefile/FileDataCorruptException.h"
#include "platform/PlatformFile.h"

namespace Tovrel {

EffectCacheReader::EffectCacheReader(const WStr& folder) {
  const WStr file = CacheFileNames::CacheFilePathFor(folder);
  if (file.isNull() || !PlatformFile::Exists(file.data())) return;
  why_ = Failure::kUnreadable;
  mutex_.reset(new NorvaneSDK::Util::MutexObject(CacheFileNames::FileMutexName(file.data()).c_str()));
  hold_.reset(new NorvaneSDK::Util::AutoMutex(*mutex_));
  if (!hold_->IsOwner()) return;
  const PagedFilePackageConfig config{file.data(), EffectCacheImpl::kCachePageCount, EffectCacheImpl::kStreamLimit};
  RefPtr<PagedFilePackage> opened(new PagedFilePackage(config));
  try {
    const IDataStreamSet& view = *opened;
    if (!opened->LoadReadOnly()) {
      if (opened->GetLoadFailure() == PagedFilePackage::LoadFailure::kCorrupt) why_ = Failure::kNotACache;
      opened->Close();
      return;
    }
    why_ = Failure::kNotACache;
    if (!EffectCacheHeader::Read(view.GetUserData(), view.GetUserDataSize(), header_)) {
      opened->Close();
      return;
    }
    RefPtr<IDataStream> index = opened->OpenStream(header_.indexStreamId);
    if (!EffectIndex::ReadAll(index, header_.effectCount, opened->GetFileLength(), entries_)) {
      index.Reset();
      opened->Close();
      return;
    }
  } catch (const FileDataCorruptException&) {
    why_ = Failure::kNotACache;
    opened->Close();
    return;
  } catch (const std::exception&) {
    why_ = Failure::kUnreadable;
    opened->Close();
    return;
  }
  why_ = Failure::kNone;
  package_ = opened;
}

EffectCacheReader::~EffectCacheReader() {
  if (package_) package_->Close();
  package_.Reset();
  hold_.reset();
}

EffectPayload::Result EffectCacheReader::ReadChecked(const EffectRecord& record, Tab<unsigned char>& compressed) {
  if (!package_) return EffectPayload::Result::kNoStream;
  try {
    EffectPayload::Result result = EffectPayload::ReadCompressed(*package_, record, compressed);
    Tab<unsigned char> data;
    if (result == EffectPayload::Result::kOk) result = EffectPayload::Decompress(record, compressed, data);
    return result;
  } catch (const std::exception&) {
    return EffectPayload::Result::kUnreadable;
  }
}

}  // namespace Tovrel
