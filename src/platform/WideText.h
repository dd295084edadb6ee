// WideText: conversion between wide strings and UTF-8.
//
// Wide strings are UTF-16 where wchar_t has 16 bits (Windows) and UTF-32
// where it has 32 (Linux); one code serves both. Ill-formed input (an
// unpaired surrogate, a code point above U+10FFFF, a broken UTF-8 sequence)
// becomes U+FFFD. Stateless; safe from any thread.
#ifndef TOVREL_PLATFORM_WIDETEXT_H
#define TOVREL_PLATFORM_WIDETEXT_H

#include <string>

namespace Tovrel {

class WideText {
 public:
  static std::string ToUtf8(const std::wstring& wide);
  // True when the wide string is well-formed Unicode: no unpaired
  // surrogate, no code point above U+10FFFF (so ToUtf8 replaces nothing).
  static bool IsWellFormed(const std::wstring& wide);
  static std::wstring FromUtf8(const std::string& utf8);
  // True when the bytes are well-formed UTF-8 (FromUtf8 replaces nothing).
  static bool IsUtf8(const std::string& bytes);
};

}  // namespace Tovrel

#endif
