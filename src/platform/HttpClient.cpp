#include "platform/HttpClient.h"

namespace Tovrel {

namespace {

bool IsHttpUrl(const std::string& url) { return url.rfind("http://", 0) == 0 || url.rfind("https://", 0) == 0; }

HttpClient::Response NotHttp() {
  HttpClient::Response refused;
  refused.error = "not an http:// or https:// URL";
  return refused;
}

}  // namespace

HttpClient::Response HttpClient::Get(const std::string& url, const Limits& limits, const Access& access) {
  return IsHttpUrl(url) ? Exchange(url, nullptr, 0, false, limits, access) : NotHttp();
}

HttpClient::Response HttpClient::Put(const std::string& url, const std::uint8_t* bytes, std::size_t size,
                                     const Limits& limits, const Access& access) {
  return IsHttpUrl(url) ? Exchange(url, bytes, size, true, limits, access) : NotHttp();
}

}  // namespace Tovrel
