#include "effectcache/EffectRemoteStore.h"

#include <unordered_set>
#include <vector>

#include "effectcache/RemoteEffectObject.h"
#include "pagefile/LittleEndian.h"

namespace Tovrel {

namespace {

// No answer, a server failing, or credentials missing or refused: the
// store rests.
bool IsFailure(const HttpClient::Response& response) {
  return !response.answered || response.status >= 500 || response.status == 401 || response.status == 403;
}

}  // namespace

EffectRemoteStore::EffectRemoteStore(const Settings& settings) : settings_(settings), restUntil_() {}

std::string EffectRemoteStore::UrlOf(const std::string& name) const {
  return settings_.baseUrl + RemoteEffectObject::KeyFor(name);
}

EffectRemoteStore::Counts EffectRemoteStore::GetCounts() const {
  std::lock_guard<std::mutex> guard(lock_);
  return counts_;
}

bool EffectRemoteStore::Resting() {
  std::lock_guard<std::mutex> guard(lock_);
  if (Clock::now() >= restUntil_) return false;
  ++counts_.skipped;
  return true;
}

bool EffectRemoteStore::Exchange(const std::function<HttpClient::Response()>& request,
                                 HttpClient::Response* response) {
  std::unique_lock<std::mutex> probe(probe_, std::defer_lock);
  if (!proven_.load()) probe.lock();
  if (Resting()) return false;
  *response = request();
  // A server that answered (too much, even) is there; one that failed
  // rests from now on, before the next waiting request looks, and is
  // probed again by one request at a time once it has rested.
  proven_ = !IsFailure(*response) || response->tooLong;
  if (!proven_) {
    std::lock_guard<std::mutex> guard(lock_);
    restUntil_ = Clock::now() + std::chrono::milliseconds(settings_.restMilliseconds);
  }
  return true;
}

void EffectRemoteStore::Failed(const std::string& why) {
  std::lock_guard<std::mutex> guard(lock_);
  Refused(why);
  restUntil_ = Clock::now() + std::chrono::milliseconds(settings_.restMilliseconds);
}

void EffectRemoteStore::Refused(const std::string& why) {
  ++counts_.errors;
  lastError_ = why;
  lastErrorTime_ = CacheTimeStamp::Now();
}

std::string EffectRemoteStore::Describe(const char* method, const std::string& url,
                                        const HttpClient::Response& response) {
  std::string why = std::string(method) + " " + RemoteStoreSettings::WithoutCredentials(url) + ": ";
  if (response.answered) return why + "HTTP " + std::to_string(response.status);
  if (response.timedOut) return why + "no answer in time";
  return why + (response.error.empty() ? std::string("no answer") : response.error);
}

std::string EffectRemoteStore::GetLastError() const {
  std::lock_guard<std::mutex> guard(lock_);
  return lastError_;
}

RemoteErrorNote EffectRemoteStore::GetLastFailure() const {
  std::lock_guard<std::mutex> guard(lock_);
  RemoteErrorNote failure;
  failure.message = lastError_;
  failure.time = lastErrorTime_;
  return failure;
}

HttpClient::Limits EffectRemoteStore::LimitsFor(std::uint64_t maxBody) const {
  HttpClient::Limits limits;
  limits.connectMilliseconds = settings_.connectMilliseconds;
  limits.transferMilliseconds = settings_.transferMilliseconds;
  limits.maxBodyBytes = maxBody;
  return limits;
}

bool EffectRemoteStore::Get(const std::string& url, std::uint64_t maxBytes, HttpClient::Response* response,
                            bool* absent) {
  if (!Exchange([&] { return HttpClient::Get(url, LimitsFor(maxBytes), settings_.Access()); }, response)) return false;
  if (IsFailure(*response) && !response->tooLong) {
    Failed(Describe("GET", url, *response));
    return false;
  }
  std::lock_guard<std::mutex> guard(lock_);
  if (response->answered && (response->status == 404 || response->status == 410)) {
    ++counts_.misses;
    if (absent != nullptr) *absent = true;
    return false;
  }
  if (!response->answered || response->status != 200) {
    Refused(response->tooLong ? "GET " + RemoteStoreSettings::WithoutCredentials(url) + ": an answer longer than allowed"
                              : Describe("GET", url, *response));
    return false;
  }
  return true;
}

bool EffectRemoteStore::Accept(const HttpClient::Response& response, const std::string& name,
                               Tab<unsigned char>& data, bool* permanent, std::vector<std::uint8_t>* compressed) {
  bool found = false;
  const RemoteEffectObject::Result result =
      RemoteEffectObject::Decode(response.body.data(), response.body.size(), name, &found, data, &settings_.teamKey);
  std::lock_guard<std::mutex> guard(lock_);
  if (result != RemoteEffectObject::Result::kOk) {
    data.ZeroCount();
    const bool unsigned_ =
        result == RemoteEffectObject::Result::kUnsigned || result == RemoteEffectObject::Result::kSignature;
    Refused(RemoteStoreSettings::WithoutCredentials(UrlOf(name)) +
            (unsigned_ ? ": not signed with the team key" : ": not a valid effect object of that name"));
    return false;
  }
  ++counts_.hits;
  counts_.bytesIn += response.body.size();
  if (permanent != nullptr) *permanent = found;
  if (compressed != nullptr) {
    // The zlib stream alone, without a MAC after it.
    const auto start = response.body.begin() + static_cast<std::ptrdiff_t>(RemoteEffectObject::kHeaderSize + name.size());
    compressed->assign(start, start + static_cast<std::ptrdiff_t>(LittleEndian::Load32(response.body.data() + RemoteEffectObject::kCompressedSizeOffset)));
  }
  return true;
}

bool EffectRemoteStore::Fetch(const std::string& name, Tab<unsigned char>& data, bool* permanent,
                              std::vector<std::uint8_t>* compressed, bool* absent) {
  HttpClient::Response response;
  if (!Get(UrlOf(name), RemoteEffectObject::SizeLimit(), &response, absent)) return false;
  return Accept(response, name, data, permanent, compressed);
}

bool EffectRemoteStore::FetchKey(const std::string& key, std::string* name, Tab<unsigned char>& data,
                                 bool* permanent, bool* absent) {
  HttpClient::Response response;
  if (!Get(settings_.baseUrl + key, RemoteEffectObject::SizeLimit(), &response, absent)) return false;
  // An object is taken only under its own name's key.
  *name = RemoteEffectObject::NameIn(response.body.data(), response.body.size());
  if (name->empty() || RemoteEffectObject::KeyFor(*name) != key) {
    std::lock_guard<std::mutex> guard(lock_);
    Refused(RemoteStoreSettings::WithoutCredentials(settings_.baseUrl + key) + ": not the effect object its key names");
    return false;
  }
  return Accept(response, *name, data, permanent, nullptr);
}

bool EffectRemoteStore::ListKeys(std::vector<std::string>* keys, bool* cut, std::size_t limit) {
  keys->clear();
  *cut = false;
  std::vector<std::string> folders{""};
  // Two levels of folders named by two hex digits, then the objects. A
  // folder's path is unique, so the entries of different pages never
  // repeat each other; each page's own repeats are dropped as it is read.
  // Folders are bounded by their names (256 a level); objects by `limit`.
  for (int level = 0; level < 3; ++level) {
    std::vector<std::string> found;
    for (const std::string& folder : folders) {
      HttpClient::Response response;
      if (!Get(settings_.baseUrl + folder, kListingLimit, &response)) {
        if (level == 0) return false;  // no listing offered
        continue;
      }
      for (const std::string& link : ListingLinks(response.body, level == 2 ? 32 : 2, level < 2)) {
        if (level == 2 && found.size() == limit) {
          *cut = true;
          break;
        }
        found.push_back(folder + link);
      }
      if (*cut) break;
    }
    folders.swap(found);
  }
  *keys = folders;
  return true;
}

std::vector<std::string> EffectRemoteStore::ListingLinks(const std::vector<std::uint8_t>& page, std::size_t digits,
                                                         bool folders) {
  // Any HTML or JSON listing names its entries in quotes: "3f/", "3fa9…".
  std::vector<std::string> links;
  std::unordered_set<std::string> seen;
  const std::string text(page.begin(), page.end());
  for (std::size_t at = text.find('"'); at != std::string::npos; at = text.find('"', at + 1)) {
    const std::size_t end = text.find('"', at + 1);
    if (end == std::string::npos) break;
    std::string link = text.substr(at + 1, end - at - 1);
    if (folders && !link.empty() && link.back() == '/') link.pop_back();
    const bool hex = link.size() == digits &&
                     link.find_first_not_of("0123456789abcdef") == std::string::npos;
    if (hex && seen.insert(link).second) links.push_back(link + (folders ? "/" : ""));
    at = end;
  }
  return links;
}

bool EffectRemoteStore::Store(const std::string& name, bool permanent, std::uint64_t uncompressedSize,
                              const std::uint8_t* compressed, std::uint64_t compressedSize) {
  if (settings_.readOnly) return false;
  const std::vector<std::uint8_t> object =
      RemoteEffectObject::Encode(name, permanent, uncompressedSize, compressed, compressedSize, &settings_.teamKey);
  if (object.empty()) {
    if (Resting()) return false;
    Failed("PUT " + RemoteStoreSettings::WithoutCredentials(UrlOf(name)) +
           ": the object cannot be signed (no HMAC-SHA256 on this system)");
    return false;
  }
  HttpClient::Response response;
  if (!Exchange([&] {
        return HttpClient::Put(UrlOf(name), object.data(), object.size(), LimitsFor(kAnswerLimit), settings_.Access());
      }, &response)) {
    return false;
  }
  if (IsFailure(response)) {
    Failed(Describe("PUT", UrlOf(name), response));
    return false;
  }
  std::lock_guard<std::mutex> guard(lock_);
  if (response.status < 200 || response.status >= 300) {
    Refused(Describe("PUT", UrlOf(name), response));
    return false;
  }
  ++counts_.stored;
  counts_.bytesOut += object.size();
  return true;
}

}  // namespace Tovrel
