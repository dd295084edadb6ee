#include "platform/HttpClient.h"

#include <curl/curl.h>
#include <dlfcn.h>

#include <algorithm>
#include <cstring>
#include <mutex>

namespace Tovrel {

namespace {

// The few libcurl functions the client calls, found in the system's
// libcurl when first needed.
struct Curl {
  CURLcode (*globalInit)(long) = nullptr;
  CURL* (*easyInit)() = nullptr;
  CURLcode (*setopt)(CURL*, CURLoption, ...) = nullptr;
  CURLcode (*perform)(CURL*) = nullptr;
  CURLcode (*getinfo)(CURL*, CURLINFO, ...) = nullptr;
  void (*cleanup)(CURL*) = nullptr;
  const char* (*strerror)(CURLcode) = nullptr;
  curl_slist* (*slistAppend)(curl_slist*, const char*) = nullptr;
  void (*slistFree)(curl_slist*) = nullptr;
  bool loaded = false;
};

template <typename F>
bool Find(void* library, const char* name, F* function) {
  *function = reinterpret_cast<F>(dlsym(library, name));
  return *function != nullptr;
}

const Curl& LoadedCurl() {
  static Curl curl;
  static std::once_flag once;
  std::call_once(once, [] {
    void* library = dlopen("libcurl.so.4", RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) return;
    Curl found;
    const bool all = Find(library, "curl_global_init", &found.globalInit) &&
                     Find(library, "curl_easy_init", &found.easyInit) &&
                     Find(library, "curl_easy_setopt", &found.setopt) &&
                     Find(library, "curl_easy_perform", &found.perform) &&
                     Find(library, "curl_easy_getinfo", &found.getinfo) &&
                     Find(library, "curl_easy_cleanup", &found.cleanup) &&
                     Find(library, "curl_easy_strerror", &found.strerror) &&
                     Find(library, "curl_slist_append", &found.slistAppend) &&
                     Find(library, "curl_slist_free_all", &found.slistFree);
    // The library stays loaded for the life of the process: handles made
    // by any thread may still be in use.
    if (!all || found.globalInit(CURL_GLOBAL_DEFAULT) != CURLE_OK) return;
    found.loaded = true;
    curl = found;
  });
  return curl;
}

struct Download {
  std::vector<std::uint8_t>* body;
  std::uint64_t limit;
  bool tooLong;
};

std::size_t Receive(char* data, std::size_t size, std::size_t count, void* user) {
  auto* download = static_cast<Download*>(user);
  const std::size_t n = size * count;
  if (download->body->size() + n > download->limit) {
    download->tooLong = true;
    return 0;  // ends the transfer
  }
  download->body->insert(download->body->end(), data, data + n);
  return n;
}

struct Upload {
  const std::uint8_t* bytes;
  std::size_t left;
};

std::size_t Send(char* buffer, std::size_t size, std::size_t count, void* user) {
  auto* upload = static_cast<Upload*>(user);
  const std::size_t n = std::min(size * count, upload->left);
  if (n != 0) std::memcpy(buffer, upload->bytes, n);
  upload->bytes += n;
  upload->left -= n;
  return n;
}

}  // namespace

HttpClient::Response HttpClient::Exchange(const std::string& url, const std::uint8_t* bytes, std::size_t size,
                                          bool put, const Limits& limits, const Access& access) {
  Response response;
  const Curl& curl = LoadedCurl();
  if (!curl.loaded) {
    response.error = "no libcurl on this system";
    return response;
  }
  CURL* handle = curl.easyInit();
  if (handle == nullptr) {
    response.error = "libcurl could not start a request";
    return response;
  }
  Download download{&response.body, limits.maxBodyBytes, false};
  Upload upload{bytes, size};
  curl_slist* headers = curl.slistAppend(nullptr, "Expect:");  // no wait for a 100 before the body
  if (!access.authorization.empty()) {
    curl_slist* more = curl.slistAppend(headers, ("Authorization: " + access.authorization).c_str());
    if (more == nullptr) {
      curl.slistFree(headers);
      curl.cleanup(handle);
      response.error = "libcurl could not start a request";
      return response;
    }
    headers = more;
  }
  char detail[CURL_ERROR_SIZE] = {};
  curl.setopt(handle, CURLOPT_URL, url.c_str());
  curl.setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
  curl.setopt(handle, CURLOPT_NOSIGNAL, 1L);
  curl.setopt(handle, CURLOPT_FOLLOWLOCATION, 0L);
  // A server's certificate and host name are always verified.
  curl.setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L);
  curl.setopt(handle, CURLOPT_SSL_VERIFYHOST, 2L);
  if (!access.caFile.empty()) curl.setopt(handle, CURLOPT_CAINFO, access.caFile.c_str());
  curl.setopt(handle, CURLOPT_ERRORBUFFER, detail);
  curl.setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(limits.connectMilliseconds));
  curl.setopt(handle, CURLOPT_TIMEOUT_MS, static_cast<long>(limits.transferMilliseconds));
  curl.setopt(handle, CURLOPT_WRITEFUNCTION, &Receive);
  curl.setopt(handle, CURLOPT_WRITEDATA, &download);
  curl.setopt(handle, CURLOPT_HTTPHEADER, headers);
  if (put) {
    curl.setopt(handle, CURLOPT_UPLOAD, 1L);
    curl.setopt(handle, CURLOPT_READFUNCTION, &Send);
    curl.setopt(handle, CURLOPT_READDATA, &upload);
    curl.setopt(handle, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(size));
  }
  const CURLcode result = curl.perform(handle);
  long status = 0;
  curl.getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
  curl.cleanup(handle);
  curl.slistFree(headers);
  response.tooLong = download.tooLong;
  response.timedOut = result == CURLE_OPERATION_TIMEDOUT;
  if (result == CURLE_OK) {
    response.answered = true;
    response.status = static_cast<int>(status);
  } else {
    response.error = response.tooLong ? "the answer is longer than allowed"
                     : detail[0] != '\0'  ? std::string(detail)
                                           : std::string(curl.strerror(result));
    response.body.clear();
  }
  return response;
}

}  // namespace Tovrel
