#include "platform/Environment.h"

#include <windows.h>

namespace Tovrel {

std::wstring Environment::Get(const wchar_t* name) {
  wchar_t buffer[kBufferCharacters] = {};
  const DWORD length = GetEnvironmentVariableW(name, buffer, static_cast<DWORD>(kBufferCharacters));
  if (length == 0 || length >= kBufferCharacters) return std::wstring();
  return std::wstring(buffer, length);
}

std::wstring Environment::GetWhole(const wchar_t* name) {
  const DWORD needed = GetEnvironmentVariableW(name, nullptr, 0);
  if (needed <= 1) return std::wstring();
  std::wstring value(needed, L'\0');
  const DWORD length = GetEnvironmentVariableW(name, &value[0], needed);
  if (length == 0 || length >= needed) return std::wstring();
  value.resize(length);
  return value;
}

}  // namespace Tovrel
