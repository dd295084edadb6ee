#include "effectcache/RemoteStoreSettings.h"

#include <cassert>

#include "effectcache/SideFile.h"
#include "platform/Environment.h"
#include "platform/WideText.h"

namespace Tovrel {

namespace {

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// "%40" and the like decoded; false for a '%' not followed by two hex digits.
bool PercentDecoded(const std::string& text, std::string* decoded) {
  decoded->clear();
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      decoded->push_back(text[i]);
      continue;
    }
    if (i + 2 >= text.size()) return false;
    const int high = HexValue(text[i + 1]);
    const int low = HexValue(text[i + 2]);
    if (high < 0 || low < 0) return false;
    decoded->push_back(static_cast<char>(high * 16 + low));
    i += 2;
  }
  return true;
}

std::string Base64(const std::string& bytes) {
  static const char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    std::uint32_t group = static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[i])) << 16;
    if (i + 1 < bytes.size()) group |= static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[i + 1])) << 8;
    if (i + 2 < bytes.size()) group |= static_cast<unsigned char>(bytes[i + 2]);
    text.push_back(kDigits[(group >> 18) & 63]);
    text.push_back(kDigits[(group >> 12) & 63]);
    text.push_back(i + 1 < bytes.size() ? kDigits[(group >> 6) & 63] : '=');
    text.push_back(i + 2 < bytes.size() ? kDigits[group & 63] : '=');
  }
  return text;
}

// The whole file, when it holds 1 to `limit` bytes; false otherwise.
bool ReadWhole(const std::string& path, std::size_t limit, std::vector<std::uint8_t>* bytes) {
  bytes->assign(limit + 1, 0);
  const std::size_t got = SideFile::Read(WideText::FromUtf8(path), bytes->data(), bytes->size());
  bytes->resize(got);
  return got != 0 && got <= limit;
}

// A token as a file holds it: the first line, without the line's end and
// surrounding blanks.
std::string TokenIn(const std::vector<std::uint8_t>& bytes) {
  std::string token(bytes.begin(), bytes.end());
  token = token.substr(0, token.find_first_of("\r\n"));
  const std::size_t first = token.find_first_not_of(" \t");
  if (first == std::string::npos) return std::string();
  return token.substr(first, token.find_last_not_of(" \t") + 1 - first);
}

// A header value must not end the header early or carry control bytes.
bool FitsAHeader(const std::string& value) {
  for (char c : value) {
    if (static_cast<unsigned char>(c) < ' ' || c == '\x7f') return false;
  }
  return !value.empty();
}

bool Refuse(std::string* why, const std::string& reason) {
  if (why != nullptr) *why = reason;
  return false;
}

}  // namespace

std::string RemoteStoreSettings::WithoutCredentials(const std::string& text) {
  std::string shown = text;
  for (std::size_t scheme = shown.find("://"); scheme != std::string::npos; scheme = shown.find("://", scheme + 3)) {
    const std::size_t start = scheme + 3;
    const std::size_t end = shown.find_first_of("/?#|", start);
    const std::size_t at = shown.rfind('@', end == std::string::npos ? std::string::npos : end - 1);
    if (at != std::string::npos && at >= start && (end == std::string::npos || at < end)) {
      shown.erase(start, at + 1 - start);
    }
  }
  return shown;
}

bool RemoteStoreSettings::ParseOption(const std::string& option, std::string* why) {
  if (option == "read-only") {
    readOnly = true;
    return true;
  }
  const std::size_t equals = option.find('=');
  const std::string key = option.substr(0, equals);
  const std::string value = equals == std::string::npos ? std::string() : option.substr(equals + 1);
  if (key == "ca" || key == "token-file" || key == "key-file") {
    if (value.empty()) return Refuse(why, "|" + key + "= names no file");
    std::vector<std::uint8_t> bytes;
    if (key == "ca") {
      if (!ReadWhole(value, 1u << 20, &bytes)) return Refuse(why, "the CA file " + value + " cannot be read");
      caFile = value;
    } else if (key == "token-file") {
      if (!ReadWhole(value, kMaximumTokenBytes, &bytes) || !FitsAHeader(TokenIn(bytes))) {
        return Refuse(why, "the token file " + value + " cannot be read or holds no token");
      }
      authorization = "Bearer " + TokenIn(bytes);
    } else {
      if (!ReadWhole(value, kMaximumKeyBytes, &bytes) || bytes.size() < kMinimumKeyBytes) {
        return Refuse(why, "the key file " + value + " cannot be read or does not hold 32 to 4,096 bytes");
      }
      teamKey = bytes;
    }
    return true;
  }
  if (equals == std::string::npos || value.empty() || value.size() > 6 ||
      value.find_first_not_of("0123456789") != std::string::npos || std::stoul(value) == 0 ||
      (key != "connect-ms" && key != "timeout-ms")) {
    return Refuse(why, "|" + option + " is not an option");
  }
  (key == "connect-ms" ? connectMilliseconds : transferMilliseconds) = static_cast<std::uint32_t>(std::stoul(value));
  return true;
}

bool RemoteStoreSettings::ParseUrl(std::string url, std::string* why) {
  const bool http = url.rfind("http://", 0) == 0 || url.rfind("https://", 0) == 0;
  const std::size_t start = url.find("://") + 3;
  if (!http || url.size() <= start || url[start] == '/') return Refuse(why, "not an http:// or https:// URL");
  for (char c : url) {
    if (static_cast<unsigned char>(c) <= ' ' || c == '"' || c == '\\') {
      return Refuse(why, "a URL holds no blanks, quotes or backslashes");
    }
  }
  const std::size_t end = url.find_first_of("/?#", start);
  const std::size_t at = url.rfind('@', end == std::string::npos ? std::string::npos : end - 1);
  if (at != std::string::npos && at >= start) {
    if (!authorization.empty()) return Refuse(why, "both a token file and credentials in the URL");
    std::string userPassword;
    if (!PercentDecoded(url.substr(start, at - start), &userPassword) || !FitsAHeader(userPassword)) {
      return Refuse(why, "the URL's credentials do not read as user:password");
    }
    authorization = "Basic " + Base64(userPassword);
    url.erase(start, at + 1 - start);
    if (url.size() <= start || url[start] == '/') return Refuse(why, "not an http:// or https:// URL");
  }
  if (url.back() != '/') url.push_back('/');
  baseUrl = url;
  return true;
}

bool RemoteStoreSettings::Parse(const std::string& text, RemoteStoreSettings* settings, std::string* why) {
  assert(settings != nullptr);
  RemoteStoreSettings parsed;
  std::size_t bar = text.find('|');
  while (bar != std::string::npos) {
    const std::size_t next = text.find('|', bar + 1);
    const std::string option = text.substr(bar + 1, next == std::string::npos ? std::string::npos : next - bar - 1);
    if (!parsed.ParseOption(option, why)) return false;
    bar = next;
  }
  if (!parsed.ParseUrl(text.substr(0, text.find('|')), why)) return false;
  if (parsed.authorization.empty()) {
    const std::string token = WideText::ToUtf8(Environment::GetWhole(kTokenVariable));
    if (!token.empty()) {
      if (!FitsAHeader(token)) return Refuse(why, "TOVREL_EFFECT_CACHE_REMOTE_TOKEN does not fit a header");
      parsed.authorization = "Bearer " + token;
    }
  }
  *settings = parsed;
  return true;
}

HttpClient::Access RemoteStoreSettings::Access() const {
  HttpClient::Access access;
  access.authorization = authorization;
  access.caFile = caFile;
  return access;
}

}  // namespace Tovrel
