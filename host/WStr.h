// WStr: the host SDK's wide string.
//
// Owns a zero-terminated wide string. data() stays valid until the string is
// changed or destroyed. Value type; thread-safety as any value.
#ifndef HOST_WSTR_H
#define HOST_WSTR_H

#include <cstddef>
#include <string>

#include "host/NorvaneString.h"

class WStr {
 public:
  WStr() = default;
  WStr(const wchar_t* text) : text_(text != nullptr ? text : L"") {}  // NOLINT: implicit by design
  explicit WStr(std::wstring text) : text_(std::move(text)) {}

  const wchar_t* data() const { return text_.c_str(); }
  std::size_t Length() const { return text_.size(); }
  bool isNull() const { return text_.empty(); }
  wchar_t operator[](std::size_t i) const { return text_[i]; }

  WStr& operator+=(const WStr& more) {
    text_ += more.text_;
    return *this;
  }
  bool operator==(const WStr& other) const { return text_ == other.text_; }

  NorvaneString ToNorvaneString() const { return NorvaneString(text_); }

 private:
  std::wstring text_;
};

#endif
