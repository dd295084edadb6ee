#include "platform/Environment.h"

#include <windows.h>

namespace Tovrel {

std::wstring Environment::Get(const wchar_t* name) {
  wchar_t buffer[kBufferCharacters] = {};
  const DWORD length = GetEnvironmentVariableW(name, buffer, static_cast<DWORD>(kBufferCharacters));
  if (length == 0 || length >= kBufferCharacters) return std::wstring();
  return std::wstring(buffer, length);
}

}  // namespace Tovrel
