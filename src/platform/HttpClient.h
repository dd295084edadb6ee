// HttpClient: one HTTP request at a time to a server, for the effect
// cache's remote store: GET an object, PUT an object.
//
// Every exchange is bounded: `connectMilliseconds` to connect,
// `transferMilliseconds` for the whole exchange, and an answer longer than
// `maxBodyBytes` (to a PUT too) is cut off there and reported as too long
// (so a server can never make the caller hold more). Redirects are not followed: a 3xx
// comes back as its status. Only http:// and https:// URLs are taken. On
// Linux the system's libcurl is loaded the first time a request is made
// (the library does not link it: a host that never names a remote store
// never loads it); on Windows WinHTTP does the work. Neither raises
// signals nor throws: every failure is a Response saying why.
//
// Stateless; every function may be called from any thread.
#ifndef TOVREL_PLATFORM_HTTPCLIENT_H
#define TOVREL_PLATFORM_HTTPCLIENT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Tovrel {

class HttpClient {
 public:
  struct Limits {
    std::uint32_t connectMilliseconds = 250;
    std::uint32_t transferMilliseconds = 2000;
    std::uint64_t maxBodyBytes = 64 * 1024;
  };
  // What a request carries beyond its URL.
  struct Access {
    // The Authorization header's value ("Bearer ...", "Basic ..."); empty
    // for none. Never part of a Response's error.
    std::string authorization;
    // For https://: the CA certificates (a PEM file, UTF-8 path) that the
    // server's certificate must chain to, instead of the system's trust
    // store. The certificate and its host name are always verified: one
    // that does not verify is an error, and no request is sent.
    std::string caFile;
  };
  struct Response {
    bool answered = false;   // a whole HTTP answer came (of any status)
    int status = 0;          // its status; 0 when none came
    bool timedOut = false;   // a bound of time was reached
    bool tooLong = false;    // the body passed maxBodyBytes
    std::vector<std::uint8_t> body;
    std::string error;       // why no whole answer came, in words
  };

  static Response Get(const std::string& url, const Limits& limits, const Access& access = Access());
  static Response Put(const std::string& url, const std::uint8_t* bytes, std::size_t size, const Limits& limits,
                      const Access& access = Access());

 private:
  // One request, by the system's own client (posix/, win32/): a PUT of
  // `bytes` when `put`, else a GET. The URL is http:// or https://.
  static Response Exchange(const std::string& url, const std::uint8_t* bytes, std::size_t size, bool put,
                           const Limits& limits, const Access& access);
};

}  // namespace Tovrel

#endif
