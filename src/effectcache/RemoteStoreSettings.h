// RemoteStoreSettings: what names a remote store and how to reach it: the
// base URL, the bounds of a request, and what a studio's server asks of
// its clients: a CA to verify its certificate against, credentials, and
// the team key that signs the objects.
//
// Read from one line of text, "URL" followed by options, each after a '|':
//
//   |read-only        fetch only; never PUT
//   |connect-ms=N     bound on connecting, in milliseconds (250)
//   |timeout-ms=N     bound on a whole request, in milliseconds (2000)
//   |ca=PATH          verify an https:// server against the CA certificates
//                     (PEM) in PATH instead of the system's trust store
//   |token-file=PATH  send the token in PATH as "Authorization: Bearer";
//                     without it, the token in the environment variable
//                     "TOVREL_EFFECT_CACHE_REMOTE_TOKEN", if any
//   |key-file=PATH    the team key (32 to 4,096 bytes): every object PUT
//                     is signed with it, and only objects signed with it
//                     are accepted
//
// "user:password@" in the URL's authority is sent as HTTP basic
// authentication (percent-escapes decoded); the URL kept has none. A
// token from a file or the URL's credentials win over the environment's
// token; a token file together with URL credentials is refused. Files are
// read when the text is parsed: a file that cannot be read names no store.
//
// A value type. The credentials and the key it holds are never shown:
// nothing in the library prints `authorization` or `teamKey`, and
// `baseUrl` carries no credentials.
#ifndef TOVREL_EFFECTCACHE_REMOTESTORESETTINGS_H
#define TOVREL_EFFECTCACHE_REMOTESTORESETTINGS_H

#include <cstdint>
#include <string>
#include <vector>

#include "platform/HttpClient.h"

namespace Tovrel {

struct RemoteStoreSettings {
  static constexpr const wchar_t* kTokenVariable = L"TOVREL_EFFECT_CACHE_REMOTE_TOKEN";
  static constexpr std::size_t kMinimumKeyBytes = 32;
  static constexpr std::size_t kMaximumKeyBytes = 4096;
  // The longest token file read (longer ones are refused).
  static constexpr std::size_t kMaximumTokenBytes = 16384;

  std::string baseUrl;  // http:// or https://, ending in '/', no credentials
  bool readOnly = false;
  std::uint32_t connectMilliseconds = 250;
  std::uint32_t transferMilliseconds = 2000;
  std::uint32_t restMilliseconds = 60000;
  std::string caFile;                 // UTF-8 path; empty for the system's trust store
  std::string authorization;          // the Authorization header's value; empty for none
  std::vector<std::uint8_t> teamKey;  // empty: objects are neither signed nor checked

  // False, `settings` unchanged and `why` (when given) saying what is
  // wrong, for text that does not read as above.
  static bool Parse(const std::string& text, RemoteStoreSettings* settings, std::string* why = nullptr);
  // The text with any "user:password@" of a URL's authority taken out,
  // for messages: credentials are never shown.
  static std::string WithoutCredentials(const std::string& text);

  // What a request to the store is sent with.
  HttpClient::Access Access() const;

 private:
  bool ParseOption(const std::string& option, std::string* why);
  bool ParseUrl(std::string url, std::string* why);
};

}  // namespace Tovrel

#endif
