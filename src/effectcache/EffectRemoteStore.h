// EffectRemoteStore: a second tier for an effect cache, shared by many
// machines: a base URL under which effects are kept as RemoteEffectObjects,
// one per name (base URL + RemoteEffectObject::KeyFor(name)), read with
// GET and, unless the store is read only, written with PUT. Any HTTP
// server that stores what is PUT as plain files (nginx or Apache with
// WebDAV, object-store gateways) will do.
//
// A store never costs more than its bounds: each request is limited in
// time (250 ms to connect, 2 s for the exchange, by default) and in the
// bytes it takes (RemoteEffectObject::SizeLimit()); after a failure (no
// answer, a timeout, a cut-off answer, a 5xx status) no request is made
// for a rest period (60 s by default), so a dead server costs a process
// one timeout per period at most; a 401 or 403 (credentials missing or
// refused) rests the store the same way, so a misconfigured client does
// not hammer its server. A 404 is a miss; any other answer that
// is not a valid object of the name asked for (another status, a redirect,
// garbage, another name's object) is counted as an error and answered as
// a miss. Nothing the server sends can make Fetch hand back another name's
// bytes.
//
// Owned by its EffectCacheImpl. Thread-safety: every member may be called
// from any thread (the counts and the rest period are under a lock; the
// requests themselves run unlocked, several at once once the server has
// answered).
#ifndef TOVREL_EFFECTCACHE_EFFECTREMOTESTORE_H
#define TOVREL_EFFECTCACHE_EFFECTREMOTESTORE_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "effectcache/RemoteErrorNote.h"
#include "effectcache/RemoteStoreSettings.h"
#include "host/Tab.h"
#include "platform/HttpClient.h"

namespace Tovrel {

class EffectRemoteStore {
 public:
  using Settings = RemoteStoreSettings;
  // What the store did, since it was made.
  struct Counts {
    std::uint64_t hits = 0;      // valid objects fetched
    std::uint64_t misses = 0;    // names the store does not hold (404)
    std::uint64_t errors = 0;    // failed requests and refused answers
    std::uint64_t skipped = 0;   // requests not made while resting
    std::uint64_t stored = 0;    // objects PUT
    std::uint64_t bytesIn = 0;   // bytes of the objects fetched
    std::uint64_t bytesOut = 0;  // bytes of the objects PUT
  };

  explicit EffectRemoteStore(const Settings& settings);

  // True, with the effect's bytes and permanence (and, when asked, its
  // compressed bytes as the object holds them), when the store holds a
  // valid object of this name.
  // `absent`, when given, is set when the store said it holds no such
  // object (a miss, not a failure).
  bool Fetch(const std::string& name, Tab<unsigned char>& data, bool* permanent,
             std::vector<std::uint8_t>* compressed = nullptr, bool* absent = nullptr);
  // GETs the object at `key` (a key as RemoteEffectObject::KeyFor makes
  // it): true, with its name, bytes and permanence, for a valid object
  // whose name has that key.
  bool FetchKey(const std::string& key, std::string* name, Tab<unsigned char>& data, bool* permanent,
                bool* absent = nullptr);
  // Keys ListKeys keeps at most: 38 bytes each ("3f/a9/" and 32 hex
  // digits), about 40 MiB of keys, more than twice the objects of the
  // largest caches (a store of 480,000 fits).
  static constexpr std::size_t kKeyLimit = std::size_t{1} << 20;

  // Every object's key, from the listings the server offers of the base
  // URL and its folders (an HTML or JSON autoindex: the entries named in
  // quotes), each once; false when the base URL gives no listing. Past
  // `limit` keys no further listing is read and `*cut` is set: the keys
  // kept are the first ones listed.
  bool ListKeys(std::vector<std::string>* keys, bool* cut, std::size_t limit = kKeyLimit);
  // The entries of one listing page that are `digits` hex digits long
  // (with a "/" after them when `folders`), each once, in the page's
  // order; linear in the page's length.
  static std::vector<std::string> ListingLinks(const std::vector<std::uint8_t>& page, std::size_t digits,
                                               bool folders);
  // PUTs the effect's object; false when the store is read only, resting,
  // or did not take it.
  bool Store(const std::string& name, bool permanent, std::uint64_t uncompressedSize, const std::uint8_t* compressed,
             std::uint64_t compressedSize);

  const Settings& GetSettings() const { return settings_; }
  std::string UrlOf(const std::string& name) const;
  Counts GetCounts() const;
  // The last failure in words ("GET http://host/fx/ab/cd...: HTTP 401",
  // "...: Couldn't connect to server"), the URL without credentials;
  // empty while there was none.
  std::string GetLastError() const;
  // The same with the time it failed (UTC); an empty message while none.
  RemoteErrorNote GetLastFailure() const;

 private:
  using Clock = std::chrono::steady_clock;

  // The longest listing read, and the longest answer to a PUT.
  static constexpr std::uint64_t kListingLimit = 16u << 20;
  static constexpr std::uint64_t kAnswerLimit = 64u << 10;

  // A GET that gave a 200: false (counted) otherwise.
  bool Get(const std::string& url, std::uint64_t maxBytes, HttpClient::Response* response, bool* absent = nullptr);
  bool Accept(const HttpClient::Response& response, const std::string& name, Tab<unsigned char>& data,
              bool* permanent, std::vector<std::uint8_t>* compressed);
  bool Resting();
  // Makes a request unless the store rests (false then). Until the server
  // has answered once, and again after a failure, requests go one at a
  // time: threads that transfer at once then cost a dead server one
  // request, not one each.
  bool Exchange(const std::function<HttpClient::Response()>& request, HttpClient::Response* response);
  // A failed exchange: counted, the store rests, and why is kept.
  void Failed(const std::string& why);
  // An answer refused (counted, no rest): why is kept. With lock_ held.
  void Refused(const std::string& why);
  // "GET URL: HTTP 401" and the like.
  static std::string Describe(const char* method, const std::string& url, const HttpClient::Response& response);
  HttpClient::Limits LimitsFor(std::uint64_t maxBody) const;

  const Settings settings_;
  mutable std::mutex lock_;  // over counts_, lastError_ and restUntil_
  Counts counts_;
  std::string lastError_;
  CacheTimeStamp lastErrorTime_{};
  // No request before this time, after a failure; the clock's epoch when
  // none failed.
  Clock::time_point restUntil_;
  // Held by the one request in flight while the server is not proven.
  std::mutex probe_;
  // True once the server answered, false again after a failure.
  std::atomic<bool> proven_{false};
};

}  // namespace Tovrel

#endif
