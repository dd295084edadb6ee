#include "platform/NativeFile.h"

#include <stdio.h>
#include <wchar.h>

namespace Tovrel {

std::FILE* NativeFile::Open(const wchar_t* path, const char* mode) {
  wchar_t wideMode[8] = {};
  for (int i = 0; i < 7 && mode[i] != '\0'; ++i) wideMode[i] = static_cast<wchar_t>(mode[i]);
  return _wfopen(path, wideMode);
}

int NativeFile::Seek(std::FILE* file, std::int64_t offset, int origin) {
  return _fseeki64(file, offset, origin);
}

std::int64_t NativeFile::Tell(std::FILE* file) { return _ftelli64(file); }

int NativeFile::Remove(const wchar_t* path) { return _wremove(path); }

wchar_t NativeFile::Separator() { return L'\\'; }

}  // namespace Tovrel
