#include "platform/Environment.h"

#include <cstdlib>

#include "platform/WideText.h"

namespace Tovrel {

std::wstring Environment::Get(const wchar_t* name) {
  const char* value = std::getenv(WideText::ToUtf8(name).c_str());
  if (value == nullptr) return std::wstring();
  std::wstring wide = WideText::FromUtf8(value);
  if (wide.size() >= kBufferCharacters) return std::wstring();
  return wide;
}

std::wstring Environment::GetWhole(const wchar_t* name) {
  const char* value = std::getenv(WideText::ToUtf8(name).c_str());
  return value == nullptr ? std::wstring() : WideText::FromUtf8(value);
}

}  // namespace Tovrel
