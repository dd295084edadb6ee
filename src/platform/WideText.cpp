#include "platform/WideText.h"

#include <cstdint>

namespace Tovrel {

namespace {

constexpr char32_t kReplacement = 0xFFFD;
constexpr bool kWideIsUtf16 = sizeof(wchar_t) == 2;

bool IsSurrogate(char32_t c) { return c >= 0xD800 && c <= 0xDFFF; }

void AppendUtf8(std::string& out, char32_t c) {
  if (c > 0x10FFFF || IsSurrogate(c)) c = kReplacement;
  if (c < 0x80) {
    out.push_back(static_cast<char>(c));
  } else if (c < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (c >> 6)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else if (c < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (c >> 12)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (c >> 18)));
    out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  }
}

void AppendWide(std::wstring& out, char32_t c) {
  if (kWideIsUtf16 && c >= 0x10000) {
    c -= 0x10000;
    out.push_back(static_cast<wchar_t>(0xD800 + (c >> 10)));
    out.push_back(static_cast<wchar_t>(0xDC00 + (c & 0x3FF)));
  } else {
    out.push_back(static_cast<wchar_t>(c));
  }
}

// Decodes one UTF-8 sequence starting at text[i]; advances i past it.
char32_t DecodeUtf8(const std::string& text, std::size_t& i) {
  const auto lead = static_cast<unsigned char>(text[i++]);
  if (lead < 0x80) return lead;
  int extra = 0;
  char32_t c = 0;
  char32_t minimum = 0;
  if ((lead & 0xE0) == 0xC0) {
    extra = 1, c = lead & 0x1F, minimum = 0x80;
  } else if ((lead & 0xF0) == 0xE0) {
    extra = 2, c = lead & 0x0F, minimum = 0x800;
  } else if ((lead & 0xF8) == 0xF0) {
    extra = 3, c = lead & 0x07, minimum = 0x10000;
  } else {
    return kReplacement;
  }
  for (int k = 0; k < extra; ++k) {
    if (i >= text.size()) return kReplacement;
    const auto next = static_cast<unsigned char>(text[i]);
    if ((next & 0xC0) != 0x80) return kReplacement;
    c = (c << 6) | (next & 0x3F);
    ++i;
  }
  if (c < minimum || c > 0x10FFFF || IsSurrogate(c)) return kReplacement;
  return c;
}

}  // namespace

std::string WideText::ToUtf8(const std::wstring& wide) {
  std::string out;
  out.reserve(wide.size());
  for (std::size_t i = 0; i < wide.size(); ++i) {
    char32_t c = static_cast<char32_t>(static_cast<std::make_unsigned_t<wchar_t>>(wide[i]));
    if (kWideIsUtf16 && c >= 0xD800 && c <= 0xDBFF && i + 1 < wide.size()) {
      const auto low = static_cast<char32_t>(static_cast<std::make_unsigned_t<wchar_t>>(wide[i + 1]));
      if (low >= 0xDC00 && low <= 0xDFFF) {
        c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
        ++i;
      }
    }
    AppendUtf8(out, c);
  }
  return out;
}

bool WideText::IsUtf8(const std::string& bytes) {
  // Decoding replaces every ill-formed sequence, so well-formed text is
  // exactly the text that comes back unchanged.
  return ToUtf8(FromUtf8(bytes)) == bytes;
}

bool WideText::IsWellFormed(const std::wstring& wide) {
  for (std::size_t i = 0; i < wide.size(); ++i) {
    const char32_t c = static_cast<char32_t>(static_cast<std::make_unsigned_t<wchar_t>>(wide[i]));
    if (c > 0x10FFFF) return false;
    if (!IsSurrogate(c)) continue;
    if (!kWideIsUtf16 || c > 0xDBFF || i + 1 >= wide.size()) return false;
    const auto low = static_cast<char32_t>(static_cast<std::make_unsigned_t<wchar_t>>(wide[i + 1]));
    if (low < 0xDC00 || low > 0xDFFF) return false;
    ++i;
  }
  return true;
}

std::wstring WideText::FromUtf8(const std::string& utf8) {
  std::wstring out;
  out.reserve(utf8.size());
  std::size_t i = 0;
  while (i < utf8.size()) AppendWide(out, DecodeUtf8(utf8, i));
  return out;
}

}  // namespace Tovrel
