// NorvaneString: the host SDK's text value with UTF-8 conversion.
//
// Holds text as wide characters (UTF-16 on Windows, UTF-32 elsewhere) and
// converts to and from UTF-8 bytes. Value type; thread-safety as any value
// (distinct objects on distinct threads).
#ifndef HOST_NORVANESTRING_H
#define HOST_NORVANESTRING_H

#include <string>

class NorvaneString {
 public:
  NorvaneString() = default;
  explicit NorvaneString(std::wstring text) : text_(std::move(text)) {}

  static NorvaneString FromUTF8(const std::string& utf8);

  // The text as UTF-8 bytes.
  std::string ToUTF8() const;

  const std::wstring& Wide() const { return text_; }

 private:
  std::wstring text_;
};

#endif
