#include "host/NorvaneString.h"

#include "platform/WideText.h"

NorvaneString NorvaneString::FromUTF8(const std::string& utf8) {
  return NorvaneString(Tovrel::WideText::FromUtf8(utf8));
}

std::string NorvaneString::ToUTF8() const { return Tovrel::WideText::ToUtf8(text_); }
