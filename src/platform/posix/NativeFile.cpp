#include "platform/NativeFile.h"

#include <sys/types.h>

#include <cstdio>

#include "platform/WideText.h"

namespace Tovrel {

std::FILE* NativeFile::Open(const wchar_t* path, const char* mode) {
  return std::fopen(WideText::ToUtf8(path).c_str(), mode);
}

int NativeFile::Seek(std::FILE* file, std::int64_t offset, int origin) {
  return fseeko(file, static_cast<off_t>(offset), origin);
}

std::int64_t NativeFile::Tell(std::FILE* file) { return static_cast<std::int64_t>(ftello(file)); }

int NativeFile::Remove(const wchar_t* path) { return std::remove(WideText::ToUtf8(path).c_str()); }

wchar_t NativeFile::Separator() { return L'/'; }

}  // namespace Tovrel
