#include "effectcache/EffectRemoteStore.h"

#include <vector>

#include "effectcache/RemoteEffectObject.h"

namespace Tovrel {

namespace {

constexpr const char* kReadOnlySuffix = "|read-only";

bool IsFailure(const HttpClient::Response& response) { return !response.answered || response.status >= 500; }

}  // namespace

bool EffectRemoteStore::Parse(const std::string& text, Settings* settings) {
  std::string url = text;
  bool readOnly = false;
  const std::size_t bar = url.find('|');
  if (bar != std::string::npos) {
    if (url.compare(bar, std::string::npos, kReadOnlySuffix) != 0) return false;
    url.resize(bar);
    readOnly = true;
  }
  const bool http = url.rfind("http://", 0) == 0 || url.rfind("https://", 0) == 0;
  const std::size_t scheme = url.find("://") + 3;
  if (!http || url.size() <= scheme || url[scheme] == '/') return false;
  for (char c : url) {
    if (static_cast<unsigned char>(c) <= ' ' || c == '"' || c == '\\') return false;
  }
  if (url.back() != '/') url.push_back('/');
  settings->baseUrl = url;
  settings->readOnly = readOnly;
  return true;
}

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

void EffectRemoteStore::Failed() {
  std::lock_guard<std::mutex> guard(lock_);
  ++counts_.errors;
  restUntil_ = Clock::now() + std::chrono::milliseconds(settings_.restMilliseconds);
}

HttpClient::Limits EffectRemoteStore::LimitsFor(std::uint64_t maxBody) const {
  HttpClient::Limits limits;
  limits.connectMilliseconds = settings_.connectMilliseconds;
  limits.transferMilliseconds = settings_.transferMilliseconds;
  limits.maxBodyBytes = maxBody;
  return limits;
}

bool EffectRemoteStore::Fetch(const std::string& name, Tab<unsigned char>& data, bool* permanent) {
  if (Resting()) return false;
  const HttpClient::Response response =
      HttpClient::Get(UrlOf(name), LimitsFor(RemoteEffectObject::SizeLimit()));
  if (IsFailure(response) && !response.tooLong) {
    Failed();
    return false;
  }
  std::lock_guard<std::mutex> guard(lock_);
  if (response.answered && (response.status == 404 || response.status == 410)) {
    ++counts_.misses;
    return false;
  }
  bool found = false;
  const bool valid = response.answered && response.status == 200 &&
                     RemoteEffectObject::Decode(response.body.data(), response.body.size(), name, &found, data) ==
                         RemoteEffectObject::Result::kOk;
  if (!valid) {
    data.ZeroCount();
    ++counts_.errors;
    return false;
  }
  ++counts_.hits;
  counts_.bytesIn += response.body.size();
  if (permanent != nullptr) *permanent = found;
  return true;
}

bool EffectRemoteStore::Store(const std::string& name, bool permanent, std::uint64_t uncompressedSize,
                              const std::uint8_t* compressed, std::uint64_t compressedSize) {
  if (settings_.readOnly || Resting()) return false;
  const std::vector<std::uint8_t> object =
      RemoteEffectObject::Encode(name, permanent, uncompressedSize, compressed, compressedSize);
  const HttpClient::Response response = HttpClient::Put(UrlOf(name), object.data(), object.size(), LimitsFor(0));
  if (IsFailure(response)) {
    Failed();
    return false;
  }
  std::lock_guard<std::mutex> guard(lock_);
  if (response.status < 200 || response.status >= 300) {
    ++counts_.errors;
    return false;
  }
  ++counts_.stored;
  counts_.bytesOut += object.size();
  return true;
}

}  // namespace Tovrel
