#include "platform/SharedMemoryMapping.h"

#include <windows.h>

namespace Tovrel {

std::size_t SharedMemoryMapping::MaxNameLength() { return MAX_PATH; }

void* SharedMemoryMapping::Open(const wchar_t* name) {
  return OpenFileMappingW(FILE_MAP_ALL_ACCESS, FALSE, name);
}

void* SharedMemoryMapping::Create(const wchar_t* name, std::uint32_t bytes) {
  return CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, bytes, name);
}

void* SharedMemoryMapping::MapView(void* handle, std::size_t bytes) {
  return MapViewOfFile(handle, FILE_MAP_ALL_ACCESS, 0, 0, bytes);
}

bool SharedMemoryMapping::UnmapView(void* /*handle*/, void* view) {
  return UnmapViewOfFile(view) != FALSE;
}

bool SharedMemoryMapping::Close(void* handle) { return CloseHandle(handle) != FALSE; }

}  // namespace Tovrel
