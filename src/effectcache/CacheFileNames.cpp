#include "effectcache/CacheFileNames.h"

#include <cstdint>

#include "host/Path.h"
#include "platform/PlatformFile.h"

namespace Tovrel {

WStr CacheFileNames::CacheFilePathFor(const WStr& cacheFolder) {
  if (cacheFolder.isNull()) return WStr();
  NorvaneSDK::Util::Path file(cacheFolder.data());
  file.AddTrailingSeparator();
  return WStr(std::wstring(file.GetCStr()) + kCacheFileName);
}

std::wstring CacheFileNames::SharedObjectBaseName(const std::wstring& cacheFilePath) {
  std::wstring base;
  base.reserve(cacheFilePath.size());
  for (wchar_t c : cacheFilePath) {
    const bool keep = (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z') || (c >= L'0' && c <= L'9');
    base.push_back(keep ? c : L'_');
  }
  return base;
}

std::wstring CacheFileNames::CanonicalBaseName(const std::wstring& cacheFilePath) {
  return SharedObjectBaseName(PlatformFile::CanonicalPath(cacheFilePath.c_str()));
}

std::wstring CacheFileNames::FileMutexName(const std::wstring& cacheFilePath) {
  return CanonicalBaseName(cacheFilePath) + L"_mutex";
}

std::wstring CacheFileNames::TimeStampName(const std::wstring& cacheFilePath) {
  return CanonicalBaseName(cacheFilePath) + L"_timestamp";
}

std::wstring CacheFileNames::SaveCounterName(const std::wstring& cacheFilePath) {
  return CanonicalBaseName(cacheFilePath) + L"_saves";
}

std::string CacheFileNames::OwnerNote(const std::wstring& cacheFilePath) {
  const std::int64_t owner = PlatformFile::OtherOwner(cacheFilePath.c_str());
  if (owner < 0) return std::string();
  return "the cache file belongs to another user (user id " + std::to_string(owner) +
         "): a cache is written only by the user who owns its file, and served read only to others";
}

}  // namespace Tovrel
