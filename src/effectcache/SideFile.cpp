#include "effectcache/SideFile.h"

#include "platform/PlatformFile.h"

namespace Tovrel {

std::wstring SideFile::Beside(const std::wstring& cacheFilePath, const wchar_t* name) {
  const std::size_t slash = cacheFilePath.find_last_of(L"/\\");
  const std::wstring folder = slash == std::wstring::npos ? std::wstring() : cacheFilePath.substr(0, slash + 1);
  return folder + name;
}

std::size_t SideFile::Read(const std::wstring& path, std::uint8_t* bytes, std::size_t capacity) {
  FileHandle* file = PlatformFile::Open(path.c_str(), "rb");
  if (file == nullptr) return 0;
  const std::size_t got = PlatformFile::Read(bytes, 1, capacity, file);
  PlatformFile::Close(file);
  return got;
}

bool SideFile::Replace(const std::wstring& path, const std::uint8_t* bytes, std::size_t size) {
  const std::wstring next = path + L".new";
  FileHandle* file = PlatformFile::Open(next.c_str(), "wb");
  if (file == nullptr) return false;
  const bool written = PlatformFile::Write(bytes, 1, size, file) == size;
  const bool closed = PlatformFile::Close(file) == 0;
  if (written && closed && PlatformFile::Rename(next.c_str(), path.c_str()) == 0) return true;
  PlatformFile::Remove(next.c_str());
  return false;
}

bool SideFile::Remove(const std::wstring& path) {
  return PlatformFile::Remove(path.c_str()) == 0 || !PlatformFile::Exists(path.c_str());
}

}  // namespace Tovrel
