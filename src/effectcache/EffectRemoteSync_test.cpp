#include "effectcache/EffectRemoteSync.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "effectcache/EffectCacheImpl.h"
#include "effectcache/EffectCompression.h"
#include "effectcache/RemoteEffectObject.h"
#include "support/EffectTesting.h"
#include "support/RemoteServer.h"
#include "support/TempDir.h"
#include "support/TestRun.h"

namespace Tovrel {
namespace {

namespace fs = std::filesystem;
using Testing::EffectTesting;
using Testing::RemoteServer;

constexpr int kEffects = 25;

std::string Name(int i) { return "sync/" + std::to_string(i) + ".fxo"; }
std::vector<unsigned char> Bytes(int i) {
  return EffectTesting::Bytes(static_cast<std::uint32_t>(300 + i), 1000 + 2500 * static_cast<std::size_t>(i), true);
}

EffectRemoteStore::Settings StoreAt(const std::string& url) {
  EffectRemoteStore::Settings settings;
  EXPECT_TRUE(RemoteStoreSettings::Parse(url, &settings));
  settings.connectMilliseconds = 1000;
  settings.transferMilliseconds = 3000;
  return settings;
}

class EffectRemoteSyncTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(source_);
    fs::create_directories(destination_);
    EffectCacheImpl cache(WStr(source_.wstring().c_str()), 2);
    for (int i = 0; i < kEffects; ++i) {
      const auto bytes = Bytes(i);
      ASSERT_TRUE(cache.CacheCompiledEffect(WStr(WideText(i).c_str()), bytes.data(), bytes.size(), i % 10 == 0));
    }
    cache.ForceSaveToFile();
  }
  static std::wstring WideText(int i) { return L"sync/" + std::to_wstring(i) + L".fxo"; }
  std::vector<std::string> AllNames() const {
    std::vector<std::string> names;
    for (int i = 0; i < kEffects; ++i) names.push_back(Name(i));
    return names;
  }

  Testing::TempDir dir_;
  fs::path source_ = dir_.Path() / "source";
  fs::path destination_ = dir_.Path() / "destination";
};

TEST_F(EffectRemoteSyncTest, APushedFolderIsPulledIntoAnotherByteForByte) {
  auto server = RemoteServer::StartNginx(dir_.Path() / "nginx");
  if (!server) TOVREL_SKIP_OR_FAIL(RemoteServer::WhyNone());
  const EffectRemoteStore::Settings store = StoreAt(server->Url() + dir_.Path().filename().string() + "/team");
  std::uint64_t reported = 0;
  const auto pushed = EffectRemoteSync::Push(WStr(source_.wstring().c_str()), store,
                                             [&](std::uint64_t done, std::uint64_t total) {
                                               EXPECT_EQ(total, static_cast<std::uint64_t>(kEffects));
                                               reported = done;
                                             });
  ASSERT_TRUE(pushed.ok);
  EXPECT_EQ(pushed.moved, static_cast<std::uint64_t>(kEffects));
  EXPECT_EQ(pushed.failed, 0u);
  EXPECT_EQ(reported, static_cast<std::uint64_t>(kEffects));
  EXPECT_EQ(pushed.bytes, pushed.counts.bytesOut);
  std::vector<std::string> names = AllNames();
  names.push_back("sync/never.fxo");
  const auto pulled = EffectRemoteSync::Pull(WStr(destination_.wstring().c_str()), store, names, nullptr);
  ASSERT_TRUE(pulled.ok);
  EXPECT_EQ(pulled.moved, static_cast<std::uint64_t>(kEffects));
  EXPECT_EQ(pulled.absent, 1u);
  EXPECT_EQ(pulled.failed, 0u);
  EXPECT_EQ(pulled.bytes, pushed.bytes);
  const auto index = EffectTesting::ReadIndex((destination_ / "norvaneFxoCache.dat").wstring());
  ASSERT_EQ(index.size(), static_cast<std::size_t>(kEffects));
  EXPECT_EQ(index.at(Name(10)).permanent, 1u);
  EXPECT_EQ(index.at(Name(11)).permanent, 0u);
  EffectCacheImpl cache(WStr(destination_.wstring().c_str()), 2);
  for (int i = 0; i < kEffects; ++i) {
    Tab<unsigned char> data;
    ASSERT_TRUE(cache.SearchCachedEffects(WStr(WideText(i).c_str()), data)) << i;
    EXPECT_EQ(EffectTesting::ToVector(data), Bytes(i)) << i;
  }
}

TEST_F(EffectRemoteSyncTest, PullingEverythingTakesEachObjectTheListingsName) {
  auto server = RemoteServer::StartNginx(dir_.Path() / "nginx");
  if (!server) TOVREL_SKIP_OR_FAIL(RemoteServer::WhyNone());
  const EffectRemoteStore::Settings store = StoreAt(server->Url() + dir_.Path().filename().string() + "/all");
  ASSERT_EQ(EffectRemoteSync::Push(WStr(source_.wstring().c_str()), store, nullptr).moved,
            static_cast<std::uint64_t>(kEffects));
  // An object under a key that is not its name's is refused, not stored
  // under the name it claims.
  const std::string stray = RemoteEffectObject::KeyFor("sync/stray.fxo");
  const std::string wrongKey = stray.substr(0, 6) + std::string(32, 'a');
  {
    EffectRemoteStore remote(store);
    Tab<unsigned char> data;
    ASSERT_TRUE(remote.Fetch(Name(3), data, nullptr));
    std::vector<std::uint8_t> compressed(EffectCompression::CompressBound(data.Count()));
    std::uint64_t length = compressed.size();
    EffectCompression::CompressEffect(compressed.data(), length, data.Addr(0), data.Count(), 6);
    const auto object = RemoteEffectObject::Encode(Name(3), false, data.Count(), compressed.data(), length);
    ASSERT_EQ(RemoteServer::Put(store.baseUrl + wrongKey, object) / 100, 2);
  }
  {
    // Every key once; past a bound, the first ones and word of the cut.
    EffectRemoteStore remote(store);
    std::vector<std::string> keys;
    bool cut = true;
    ASSERT_TRUE(remote.ListKeys(&keys, &cut));
    EXPECT_FALSE(cut);
    EXPECT_EQ(keys.size(), static_cast<std::size_t>(kEffects) + 1);
    EXPECT_EQ(std::set<std::string>(keys.begin(), keys.end()).size(), keys.size());
    std::vector<std::string> first;
    ASSERT_TRUE(remote.ListKeys(&first, &cut, 5));
    EXPECT_TRUE(cut);
    ASSERT_EQ(first.size(), 5u);
    EXPECT_TRUE(std::equal(first.begin(), first.end(), keys.begin()));
  }
  const auto pulled = EffectRemoteSync::PullAll(WStr(destination_.wstring().c_str()), store, nullptr);
  ASSERT_TRUE(pulled.ok);
  EXPECT_FALSE(pulled.noListing);
  EXPECT_FALSE(pulled.listingCut);
  EXPECT_EQ(pulled.moved, static_cast<std::uint64_t>(kEffects));
  EXPECT_EQ(pulled.failed, 1u);  // the object under another name's key
  EffectCacheImpl cache(WStr(destination_.wstring().c_str()), 2);
  EXPECT_EQ(cache.GetNumberOfEffectsInFile(), static_cast<std::size_t>(kEffects));
  for (int i = 0; i < kEffects; ++i) {
    Tab<unsigned char> data;
    ASSERT_TRUE(cache.SearchCachedEffects(WStr(WideText(i).c_str()), data)) << i;
    EXPECT_EQ(EffectTesting::ToVector(data), Bytes(i)) << i;
  }
}

TEST_F(EffectRemoteSyncTest, AStoreWithoutListingsIsSaidToHaveNone) {
  auto server = RemoteServer::StartFaults(dir_.Path() / "faults");
  if (!server) TOVREL_SKIP_OR_FAIL(RemoteServer::WhyNone());
  const auto pulled = EffectRemoteSync::PullAll(WStr(destination_.wstring().c_str()), StoreAt(server->Url() + "nothing"),
                                                nullptr);
  EXPECT_TRUE(pulled.noListing);
  EXPECT_EQ(pulled.moved, 0u);
}

TEST_F(EffectRemoteSyncTest, AFailureIsToldByItsStatusOrTheTransfersOwnReasonWithoutCredentials) {
  auto server = RemoteServer::StartFaults(dir_.Path() / "faults");
  if (!server) TOVREL_SKIP_OR_FAIL(RemoteServer::WhyNone());
  std::string url = server->Url();
  url.insert(url.find("://") + 3, "ann:s3cret@");
  for (const char* status : {"401", "405", "500"}) {
    SCOPED_TRACE(status);
    const auto pushed = EffectRemoteSync::Push(WStr(source_.wstring().c_str()), StoreAt(url + "status" + status), nullptr);
    EXPECT_NE(pushed.lastError.find(std::string("PUT ") + server->Url() + "status" + status + "/"), std::string::npos)
        << pushed.lastError;
    EXPECT_NE(pushed.lastError.find(std::string(": HTTP ") + status), std::string::npos) << pushed.lastError;
    EXPECT_EQ(pushed.lastError.find("s3cret"), std::string::npos);
  }
  const auto pulled = EffectRemoteSync::Pull(WStr(destination_.wstring().c_str()), StoreAt(url + "status401"),
                                             AllNames(), nullptr);
  EXPECT_NE(pulled.lastError.find(": HTTP 401"), std::string::npos) << pulled.lastError;
  std::string dead = RemoteServer::DeadUrl();
  dead.insert(dead.find("://") + 3, "ann:s3cret@");
  const auto refused = EffectRemoteSync::Push(WStr(source_.wstring().c_str()), StoreAt(dead), nullptr);
  EXPECT_NE(refused.lastError.find("PUT http://"), std::string::npos) << refused.lastError;
  EXPECT_EQ(refused.lastError.find(": HTTP "), std::string::npos) << refused.lastError;  // no status: no answer came
  EXPECT_GT(refused.lastError.size(), refused.lastError.find(": ") + 3) << "no reason given: " << refused.lastError;
  EXPECT_EQ(refused.lastError.find("s3cret"), std::string::npos);
}

TEST_F(EffectRemoteSyncTest, ADeadStoreLeavesEveryEffectOverAndTheFoldersAsTheyWere) {
  const EffectRemoteStore::Settings store = StoreAt(RemoteServer::DeadUrl());
  const auto pushed = EffectRemoteSync::Push(WStr(source_.wstring().c_str()), store, nullptr);
  ASSERT_TRUE(pushed.ok);
  EXPECT_EQ(pushed.moved, 0u);
  EXPECT_EQ(pushed.failed, static_cast<std::uint64_t>(kEffects));
  EXPECT_EQ(pushed.counts.errors, 1u);  // then it rests: no more requests
  const auto pulled = EffectRemoteSync::Pull(WStr(destination_.wstring().c_str()), store, AllNames(), nullptr);
  ASSERT_TRUE(pulled.ok);
  EXPECT_EQ(pulled.moved, 0u);
  EXPECT_EQ(pulled.failed, static_cast<std::uint64_t>(kEffects));
  EXPECT_TRUE(EffectTesting::ReadIndex((destination_ / "norvaneFxoCache.dat").wstring()).empty());
  // A folder without a cache cannot be pushed.
  EXPECT_FALSE(EffectRemoteSync::Push(WStr((dir_.Path() / "none").wstring().c_str()), store, nullptr).ok);
}

}  // namespace
}  // namespace Tovrel
