#include "CacheFile.h"

#include "ExitStatus.h"
#include "ToolError.h"
#include "effectcache/CacheWriteAccess.h"
#include "effectcache/EffectCacheImpl.h"
#include "effectcache/EffectIndex.h"
#include "platform/WideText.h"

namespace Tovrel {
namespace Tool {

UserPath CacheFile::FileOf(const UserPath& folder) {
  return UserPath(WideText::ToUtf8(CacheFileNames::CacheFilePathFor(WStr(folder.Absolute())).data()));
}

std::string CacheFile::ChangeFailed(const UserPath& folder, const std::string& what) {
  std::string why = folder.Typed() + ": the effect cache could not be " + what;
  try {
    const CacheFile cache(folder);  // under the mutex: the journal probe races no save
    const CacheWriteAccess::Why access = CacheWriteAccess::Check(cache.File().Absolute());
    if (access != CacheWriteAccess::Why::kWritable) why += std::string(" (") + CacheWriteAccess::Describe(access) + ")";
  } catch (const ToolError&) {
    // No file to ask: the plain words.
  }
  return why;
}

CacheFile::CacheFile(const UserPath& folder) : folder_(folder), header_{} {
  if (!folder.IsFolder()) {
    throw ToolError(ExitStatus::kUnreadable, folder.Typed() + (folder.Exists() ? ": not a folder" : ": no such folder"));
  }
  const UserPath file = FileOf(folder);
  if (!file.Exists()) {
    throw ToolError(ExitStatus::kUnreadable, folder.Typed() + ": no effect cache here (no " +
                                                 WideText::ToUtf8(EffectCacheImpl::kCacheFileName) + ")");
  }
  file_.reset(new LockedPackage(file, EffectCacheImpl::kStreamLimit));
  ReadHeader();
  ReadIndex();
}

void CacheFile::Refuse(const std::string& why) const {
  throw ToolError(ExitStatus::kUnreadable, File().Typed() + ": not a cache the library would load: " + why);
}

void CacheFile::ReadHeader() {
  const IDataStreamSet& view = Package();  // read-only: marks nothing modified
  if (!EffectCacheHeader::Read(view.GetUserData(), view.GetUserDataSize(), header_)) {
    Refuse("no header block of version " + std::to_string(EffectCacheHeader::kVersion) + " in its user data");
  }
}

void CacheFile::ReadIndex() {
  RefPtr<IDataStream> index;
  try {
    index = Package().OpenStream(header_.indexStreamId);
  } catch (const std::exception&) {
    index.Reset();
  }
  if (!index) Refuse("its index stream " + std::to_string(header_.indexStreamId) + " cannot be opened");
  for (std::uint64_t i = 0; i < header_.effectCount; ++i) {
    Entry entry{};
    if (!EffectIndex::ReadEntry(index, entry.name, entry.record)) {
      Refuse("its index is damaged at entry " + std::to_string(i + 1) + " of " + std::to_string(header_.effectCount));
    }
    entries_.push_back(entry);
  }
}

const CacheFile::Entry* CacheFile::Find(const std::string& name) const {
  const Entry* found = nullptr;
  for (const Entry& entry : entries_) {
    if (entry.name == name) found = &entry;
  }
  return found;
}

EffectPayload::Result CacheFile::Read(const Entry& entry, Tab<unsigned char>& data) const {
  Tab<unsigned char> compressed;
  EffectPayload::Result result = EffectPayload::Result::kUnreadable;
  try {
    result = EffectPayload::ReadCompressed(Package(), entry.record, compressed);
  } catch (const std::exception&) {
    return EffectPayload::Result::kUnreadable;
  }
  return result == EffectPayload::Result::kOk ? EffectPayload::Decompress(entry.record, compressed, data) : result;
}

}  // namespace Tool
}  // namespace Tovrel
