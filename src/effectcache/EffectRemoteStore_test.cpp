#include "effectcache/EffectRemoteStore.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <thread>
#include <memory>
#include <string>
#include <vector>

#include "effectcache/EffectCacheImpl.h"
#include "effectcache/EffectCacheStats.h"
#include "effectcache/EffectCompression.h"
#include "effectcache/RemoteEffectObject.h"
#include "support/ChildProcess.h"
#include "support/EffectTesting.h"
#include "support/InstalledFileSystem.h"
#include "support/RemoteServer.h"
#include "support/TempDir.h"
#include "support/TestRun.h"
#include "tovrel/FilePackage.h"

namespace Tovrel {
namespace {

namespace fs = std::filesystem;
using Testing::EffectTesting;
using Testing::RemoteServer;

constexpr int kEffects = 40;

std::string Name(int i) { return "team/effect_" + std::to_string(i) + ".fxo"; }
std::wstring WideName(int i) { return L"team/effect_" + std::to_wstring(i) + L".fxo"; }
std::vector<unsigned char> Bytes(int i) {
  return EffectTesting::Bytes(static_cast<std::uint32_t>(100 + i), 1500 + 977 * static_cast<std::size_t>(i),
                              i % 3 != 0);
}

// A search finds every effect the first workstation cached, byte-exact.
void ExpectEveryEffect(EffectCacheImpl& cache) {
  for (int i = 0; i < kEffects; ++i) {
    Tab<unsigned char> data;
    ASSERT_TRUE(cache.SearchCachedEffects(WStr(WideName(i).c_str()), data)) << i;
    EXPECT_EQ(EffectTesting::ToVector(data), Bytes(i)) << i;
  }
}

std::vector<std::uint8_t> ObjectOf(const std::string& name, const std::vector<unsigned char>& bytes) {
  std::vector<std::uint8_t> compressed(EffectCompression::CompressBound(bytes.size()));
  std::uint64_t length = compressed.size();
  EffectCompression::CompressEffect(compressed.data(), length, bytes.data(), bytes.size(), 6);
  return RemoteEffectObject::Encode(name, false, bytes.size(), compressed.data(), length);
}

EffectRemoteStore::Settings SettingsFor(const std::string& url, bool readOnly = false) {
  EffectRemoteStore::Settings settings;
  EXPECT_TRUE(RemoteStoreSettings::Parse(url + (readOnly ? "|read-only" : ""), &settings));
  settings.connectMilliseconds = 1000;  // a loaded test machine
  settings.transferMilliseconds = 3000;
  return settings;
}

std::size_t FilesUnder(const fs::path& folder) {
  std::size_t n = 0;
  if (!fs::exists(folder)) return 0;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) n += entry.is_regular_file() ? 1 : 0;
  return n;
}



// A listing of many entries, each named twice (as an autoindex names
// each in its link and again in its text), gives each once, in order, in
// time linear in the page: 100,000 entries here, where a search per entry
// took seconds.
TEST(EffectRemoteStoreTest, AListingGivesEachEntryOnceInItsOrder) {
  std::string page = "<a href=\"../\">../</a> \"not-hex/\" \"zz/\" \"0123\"";
  std::vector<std::string> expected;
  const char* digits = "0123456789abcdef";
  for (std::uint32_t i = 0; i < 100000; ++i) {
    std::string key(32, '0');
    std::uint32_t value = i * 2654435761u;
    for (std::size_t d = 0; d < 8; ++d, value >>= 4) key[31 - d] = digits[value & 15];
    key[0] = digits[i % 16];
    expected.push_back(key);
    page += "<a href=\"" + key + "\">\"" + key + "\"</a>\n";
  }
  const std::vector<std::uint8_t> bytes(page.begin(), page.end());
  EXPECT_EQ(EffectRemoteStore::ListingLinks(bytes, 32, false), expected);
  const std::string folders = "\"3f/\" \"3f/\" \"a0/\" \"../\" \"a0\" \"ab/c/\"";
  EXPECT_EQ(EffectRemoteStore::ListingLinks(std::vector<std::uint8_t>(folders.begin(), folders.end()), 2, true),
            (std::vector<std::string>{"3f/", "a0/"}));
}

TEST(EffectRemoteStoreTest, ObjectsLieUnderTheirKeys) {
  EffectRemoteStore store(SettingsFor("http://cache.studio/fx"));
  EXPECT_EQ(store.UrlOf("a"), "http://cache.studio/fx/" + RemoteEffectObject::KeyFor("a"));
}

class EffectRemoteStoreServerTest : public ::testing::Test {
 protected:
  Testing::TempDir dir_;
};

// Two workstations: what one caches, the other finds on its first run
// without compiling; then it finds it in its own file with the server gone.
TEST_F(EffectRemoteStoreServerTest, ASecondWorkstationIsServedByTheTeamTierThenByItsOwnFile) {
  auto server = RemoteServer::StartNginx(dir_.Path() / "nginx");
  if (!server) TOVREL_SKIP_OR_FAIL(RemoteServer::WhyNone());
  const EffectRemoteStore::Settings settings = SettingsFor(server->Url() + dir_.Path().filename().string() + "/team");
  const std::wstring first = (dir_.Path() / "first").wstring();
  const std::wstring second = (dir_.Path() / "second").wstring();
  fs::create_directories(first);
  fs::create_directories(second);
  {
    EffectCacheImpl cache(WStr(first.c_str()), 2);
    cache.SetRemoteStore(&settings);
    for (int i = 0; i < kEffects; ++i) {
      const auto bytes = Bytes(i);
      ASSERT_TRUE(cache.CacheCompiledEffect(WStr(WideName(i).c_str()), bytes.data(), bytes.size(), i == 5));
    }
    cache.ForceSaveToFile();
    EXPECT_EQ(cache.GetRemoteCounts().stored, static_cast<std::uint64_t>(kEffects));
    EXPECT_EQ(cache.GetRemoteCounts().errors, 0u);
  }
  if (!server->Store().empty()) {
    EXPECT_EQ(FilesUnder(server->Store() / dir_.Path().filename() / "team"), static_cast<std::size_t>(kEffects));
  }
  {
    EffectCacheImpl cache(WStr(second.c_str()), 2);
    cache.SetRemoteStore(&settings);
    ExpectEveryEffect(cache);
    Tab<unsigned char> none;
    EXPECT_FALSE(cache.SearchCachedEffects(WStr(L"team/never.fxo"), none));
    const EffectRemoteStore::Counts counts = cache.GetRemoteCounts();
    EXPECT_EQ(counts.hits, static_cast<std::uint64_t>(kEffects));
    EXPECT_EQ(counts.misses, 1u);
    EXPECT_GT(counts.bytesIn, 0u);
    cache.ForceSaveToFile();
    EXPECT_EQ(cache.GetNumberOfEffectsInFile(), static_cast<std::size_t>(kEffects));
    // What came from the store is not sent back to it.
    EXPECT_EQ(cache.GetRemoteCounts().stored, 0u);
  }
  // The save counted the store's work in the file's statistics.
  {
    RefPtr<IDataStreamSet> file = OpenFilePackage(PagedFilePackageConfig{
        (second + L"/norvaneFxoCache.dat").c_str(), 16, EffectCacheImpl::kStreamLimit});
    ASSERT_TRUE(file);
    EffectCacheStats stats;
    ASSERT_TRUE(EffectCacheStats::Read(*file, stats));
    EXPECT_EQ(stats.remoteHits, static_cast<std::uint64_t>(kEffects));
    EXPECT_EQ(stats.remoteMisses, 1u);
    EXPECT_EQ(stats.remoteErrors, 0u);
    EXPECT_GT(stats.remoteBytesIn, 0u);
    EXPECT_EQ(stats.hits, static_cast<std::uint64_t>(kEffects));
  }
  server->Stop();
  EffectCacheImpl cache(WStr(second.c_str()), 2);
  cache.SetRemoteStore(&settings);
  ExpectEveryEffect(cache);
  EXPECT_EQ(EffectTesting::ReadIndex(second + L"/norvaneFxoCache.dat").at(Name(5)).permanent, 1u);
  EXPECT_EQ(cache.GetRemoteCounts().hits + cache.GetRemoteCounts().errors, 0u);
}

// A studio whose build farm alone holds the team key: a writer with no
// key, or with another key, PUTs objects under names a keyed workstation
// then searches; it never returns their bytes (each refusal counted, a
// miss to the host), and finds the keyed writer's. A workstation without
// a key takes every one of them, as before keys.
TEST_F(EffectRemoteStoreServerTest, AKeyedWorkstationTakesOnlyObjectsSignedWithItsKey) {
  auto server = RemoteServer::StartNginx(dir_.Path() / "nginx");
  if (!server) TOVREL_SKIP_OR_FAIL(RemoteServer::WhyNone());
  const std::string url = server->Url() + dir_.Path().filename().string() + "/signed";
  const auto keyFile = [this](const std::string& name, std::uint8_t seed) {
    std::string key(32, '\0');
    for (std::size_t i = 0; i < key.size(); ++i) key[i] = static_cast<char>(seed * 31 + i);
    std::ofstream(dir_.Path() / name, std::ios::binary) << key;
    return "|key-file=" + (dir_.Path() / name).u8string();
  };
  const std::string team = keyFile("team.key", 1);
  const std::string other = keyFile("other.key", 2);
  // Writers: 0-2 unsigned, 3-5 another key, 6-8 the team's; the names of
  // the first six are the forger's, all of them searched below.
  const std::vector<std::pair<int, std::string>> writers{{0, ""}, {3, other}, {6, team}};
  for (const auto& writer : writers) {
    const std::wstring folder = (dir_.Path() / ("writer" + std::to_string(writer.first))).wstring();
    fs::create_directories(folder);
    const EffectRemoteStore::Settings settings = SettingsFor(url + writer.second);
    EffectCacheImpl cache(WStr(folder.c_str()), 2);
    cache.SetRemoteStore(&settings);
    for (int i = writer.first; i < writer.first + 3; ++i) {
      const auto bytes = Bytes(i);
      ASSERT_TRUE(cache.CacheCompiledEffect(WStr(WideName(i).c_str()), bytes.data(), bytes.size(), false));
    }
    cache.ForceSaveToFile();
    EXPECT_EQ(cache.GetRemoteCounts().stored, 3u);
  }
  for (const std::string& key : {team, std::string()}) {
    const std::wstring folder = (dir_.Path() / (key.empty() ? "unkeyed" : "keyed")).wstring();
    fs::create_directories(folder);
    const EffectRemoteStore::Settings settings = SettingsFor(url + key + "|read-only");
    EffectCacheImpl cache(WStr(folder.c_str()), 2);
    cache.SetRemoteStore(&settings);
    for (int i = 0; i < 9; ++i) {
      Tab<unsigned char> data;
      const bool taken = key.empty() || i >= 6;
      ASSERT_EQ(cache.SearchCachedEffects(WStr(WideName(i).c_str()), data), taken) << i;
      EXPECT_EQ(EffectTesting::ToVector(data), taken ? Bytes(i) : std::vector<unsigned char>()) << i;
    }
    const EffectRemoteStore::Counts counts = cache.GetRemoteCounts();
    EXPECT_EQ(counts.hits, key.empty() ? 9u : 3u);
    EXPECT_EQ(counts.errors, key.empty() ? 0u : 6u);
    EXPECT_EQ(counts.skipped, 0u) << "a refused object does not rest the store";
  }
  EffectRemoteStore store(SettingsFor(url + team));
  Tab<unsigned char> data;
  EXPECT_FALSE(store.Fetch(Name(4), data, nullptr));
  EXPECT_NE(store.GetLastError().find(": not signed with the team key"), std::string::npos) << store.GetLastError();
}

// Effects fetched from the store count against the limits as cached ones
// do: a writable cache saves when 2 MiB are waiting, and a read-only one
// keeps no more than its size limit in memory (the rest are served, not kept).
TEST_F(EffectRemoteStoreServerTest, EffectsFetchedFromTheStoreCountAgainstTheLimitsOfMemory) {
  auto server = RemoteServer::StartNginx(dir_.Path() / "nginx");
  if (!server) TOVREL_SKIP_OR_FAIL(RemoteServer::WhyNone());
  const EffectRemoteStore::Settings settings = SettingsFor(server->Url() + dir_.Path().filename().string() + "/big");
  const auto big = [](int i) { return EffectTesting::Bytes(static_cast<std::uint32_t>(900 + i), 90000, i % 2 == 0); };
  const auto wide = [](int i) { return L"big/" + std::to_wstring(i); };
  const std::wstring source = (dir_.Path() / "source").wstring();
  fs::create_directories(source);
  {
    EffectCacheImpl cache(WStr(source.c_str()), 2);
    cache.SetRemoteStore(&settings);
    for (int i = 0; i < kEffects; ++i) {
      const auto bytes = big(i);
      ASSERT_TRUE(cache.CacheCompiledEffect(WStr(wide(i).c_str()), bytes.data(), bytes.size(), false));
    }
    cache.ForceSaveToFile();
    ASSERT_EQ(cache.GetRemoteCounts().stored, static_cast<std::uint64_t>(kEffects));
  }
  const std::wstring writable = (dir_.Path() / "writable").wstring();
  fs::create_directories(writable);
  {
    EffectCacheImpl cache(WStr(writable.c_str()), 2);
    cache.SetRemoteStore(&settings);
    std::uint64_t most = 0;
    for (int i = 0; i < kEffects; ++i) {
      Tab<unsigned char> data;
      ASSERT_TRUE(cache.SearchCachedEffects(WStr(wide(i).c_str()), data)) << i;
      EXPECT_EQ(EffectTesting::ToVector(data), big(i)) << i;
      most = std::max(most, cache.GetPendingBytes());
    }
    if (cache.IsBackgroundSaving()) {
      // The save that 2 MiB start runs on the worker, which may not have
      // ended by now: the bytes waiting fall once it has.
      cache.ForceSaveToFile();
      EXPECT_EQ(cache.GetPendingBytes(), 0u);
      EXPECT_EQ(cache.GetNumberOfEffectsInFile(), static_cast<std::size_t>(kEffects));
      EXPECT_GE(cache.GetBackgroundSaves(), 1u);
    } else {
      EXPECT_LT(most, EffectCacheImpl::kAutoSaveThreshold);
      EXPECT_GT(cache.GetNumberOfEffectsInFile(), 0u) << "2 MiB of fetched effects were waiting without a save";
    }
  }
  Testing::InstalledFileSystem files;
  {
    EffectCacheImpl made(WStr(L"deployed"), 2);
    ASSERT_TRUE(made.IsEnabled());
  }
  files.Memory().SetReadOnly(L"deployed");
  constexpr std::uint64_t kLimit = 1 << 20;
  EffectCacheImpl cache(WStr(L"deployed"), 2, kLimit);
  ASSERT_TRUE(cache.IsReadOnly());
  cache.SetRemoteStore(&settings);
  for (int i = 0; i < kEffects; ++i) {
    Tab<unsigned char> data;
    ASSERT_TRUE(cache.SearchCachedEffects(WStr(wide(i).c_str()), data)) << i;
    EXPECT_EQ(EffectTesting::ToVector(data), big(i)) << i;
    EXPECT_LE(cache.GetPendingBytes(), kLimit) << i;
  }
  EXPECT_GT(cache.GetNumberOfEffectsInMemory(), 0u);
  EXPECT_LT(cache.GetNumberOfEffectsInMemory(), static_cast<std::size_t>(kEffects));
}

TEST_F(EffectRemoteStoreServerTest, AReadOnlyStoreIsReadAndNeverWritten) {
  auto server = RemoteServer::StartNginx(dir_.Path() / "nginx");
  if (!server) TOVREL_SKIP_OR_FAIL(RemoteServer::WhyNone());
  const std::wstring folder = (dir_.Path() / "ws").wstring();
  fs::create_directories(folder);
  const EffectRemoteStore::Settings settings = SettingsFor(server->Url() + dir_.Path().filename().string() + "/ro", true);
  EffectCacheImpl cache(WStr(folder.c_str()), 2);
  cache.SetRemoteStore(&settings);
  const auto bytes = Bytes(1);
  ASSERT_TRUE(cache.CacheCompiledEffect(WStr(L"mine.fxo"), bytes.data(), bytes.size(), false));
  cache.ForceSaveToFile();
  EXPECT_EQ(cache.GetRemoteCounts().stored, 0u);
  EXPECT_EQ(cache.GetRemoteCounts().errors, 0u);
  if (!server->Store().empty()) {
    EXPECT_EQ(FilesUnder(server->Store()), 0u);
  }
}

// What a search fetched is stored with the compressed bytes it came in,
// not compressed again (the object here is compressed at another level
// than the cache's own).
TEST_F(EffectRemoteStoreServerTest, AFetchedEffectIsStoredAsItCameWithoutBeingCompressedAgain) {
  auto server = RemoteServer::StartNginx(dir_.Path() / "nginx");
  if (!server) TOVREL_SKIP_OR_FAIL(RemoteServer::WhyNone());
  const EffectRemoteStore::Settings settings = SettingsFor(server->Url() + dir_.Path().filename().string() + "/asis");
  const std::vector<unsigned char> bytes = Bytes(13);
  const std::vector<std::uint8_t> object = ObjectOf(Name(13), bytes);
  ASSERT_EQ(RemoteServer::Put(EffectRemoteStore(settings).UrlOf(Name(13)), object) / 100, 2);
  const std::uint64_t sent = object.size() - RemoteEffectObject::kHeaderSize - Name(13).size();
  const std::wstring folder = (dir_.Path() / "ws").wstring();
  fs::create_directories(folder);
  {
    EffectCacheImpl cache(WStr(folder.c_str()), 2);
    cache.SetRemoteStore(&settings);
    Tab<unsigned char> data;
    ASSERT_TRUE(cache.SearchCachedEffects(WStr(WideName(13).c_str()), data));
    EXPECT_EQ(EffectTesting::ToVector(data), bytes);
  }
  const auto index = EffectTesting::ReadIndex(folder + L"/norvaneFxoCache.dat");
  ASSERT_EQ(index.count(Name(13)), 1u);
  EXPECT_EQ(index.at(Name(13)).compressedSize, sent);
  std::vector<std::uint8_t> ownLevel(EffectCompression::CompressBound(bytes.size()));
  std::uint64_t length = ownLevel.size();
  EffectCompression::CompressEffect(ownLevel.data(), length, bytes.data(), bytes.size(), 2);
  EXPECT_NE(length, sent);  // the cache's own level would have given another size
  EffectCacheImpl again(WStr(folder.c_str()), 2);
  Tab<unsigned char> data;
  ASSERT_TRUE(again.SearchCachedEffects(WStr(WideName(13).c_str()), data));
  EXPECT_EQ(EffectTesting::ToVector(data), bytes);
}

// A cache file that may not be written keeps new effects in memory; a
// store that takes them gets each one once, and other workstations find
// them there.
TEST_F(EffectRemoteStoreServerTest, AReadOnlyCacheFileSendsItsNewEffectsToTheStoreOnce) {
  auto server = RemoteServer::StartNginx(dir_.Path() / "nginx");
  if (!server) TOVREL_SKIP_OR_FAIL(RemoteServer::WhyNone());
  const EffectRemoteStore::Settings settings = SettingsFor(server->Url() + dir_.Path().filename().string() + "/ro");
  const auto bytes = Bytes(7);
  {
    Testing::InstalledFileSystem files;
    {
      EffectCacheImpl made(WStr(L"deployed"), 2);
      ASSERT_TRUE(made.IsEnabled());
      const auto shipped = Bytes(8);
      ASSERT_TRUE(made.CacheCompiledEffect(WStr(L"shipped.fxo"), shipped.data(), shipped.size(), false));
    }
    const std::vector<std::uint8_t> before = files.Memory().ReadAll(L"deployed/norvaneFxoCache.dat");
    files.Memory().SetReadOnly(L"deployed");
    EffectCacheImpl cache(WStr(L"deployed"), 2);
    ASSERT_TRUE(cache.IsEnabled());
    ASSERT_TRUE(cache.IsReadOnly());
    cache.SetRemoteStore(&settings);
    ASSERT_TRUE(cache.CacheCompiledEffect(WStr(L"new/shader.fxo"), bytes.data(), bytes.size(), true));
    cache.ForceSaveToFile();
    cache.ForceSaveToFile();
    EXPECT_EQ(cache.GetRemoteCounts().stored, 1u);
    Tab<unsigned char> data;
    ASSERT_TRUE(cache.SearchCachedEffects(WStr(L"new/shader.fxo"), data));
    EXPECT_EQ(EffectTesting::ToVector(data), bytes);
    EXPECT_EQ(files.Memory().ReadAll(L"deployed/norvaneFxoCache.dat"), before);
  }
  const std::wstring other = (dir_.Path() / "other").wstring();
  fs::create_directories(other);
  EffectCacheImpl cache(WStr(other.c_str()), 2);
  cache.SetRemoteStore(&settings);
  Tab<unsigned char> data;
  ASSERT_TRUE(cache.SearchCachedEffects(WStr(L"new/shader.fxo"), data));
  EXPECT_EQ(EffectTesting::ToVector(data), bytes);
}

// Every way a server can go wrong is a miss: no wrong byte, no crash, no
// more memory than the limits allow; failures make the store rest.
TEST_F(EffectRemoteStoreServerTest, EveryKindOfBadAnswerIsAMiss) {
  const std::string name = "team/asked_for.fxo";
  const std::vector<unsigned char> otherBytes = Bytes(2);
  auto server = RemoteServer::StartFaults(dir_.Path() / "faults");
  if (!server) TOVREL_SKIP_OR_FAIL(RemoteServer::WhyNone());
  // Another name's valid object, for /object/ to answer with.
  const std::vector<std::uint8_t> other = ObjectOf("team/another.fxo", otherBytes);
  ASSERT_EQ(RemoteServer::Put(server->Url() + "ok/x", other), 201);
  struct Case {
    const char* path;
    bool rests;  // a failure of the server, or credentials refused: the store rests after it
  };
  for (const Case& c : {Case{"hang", true}, Case{"slow", true}, Case{"status500", true}, Case{"truncated", true},
                        Case{"status401", true}, Case{"status403", true}, Case{"status405", false},
                        Case{"redirect", false}, Case{"garbage", false}, Case{"huge", false},
                        Case{"object", false}, Case{"nothing", false}}) {
    EffectRemoteStore::Settings settings = SettingsFor(server->Url() + c.path);
    settings.connectMilliseconds = 500;
    settings.transferMilliseconds = 700;
    EffectRemoteStore store(settings);
    Tab<unsigned char> data;
    bool permanent = false;
    EXPECT_FALSE(store.Fetch(name, data, &permanent)) << c.path;
    EXPECT_EQ(data.Count(), 0) << c.path;
    const EffectRemoteStore::Counts counts = store.GetCounts();
    EXPECT_EQ(counts.hits, 0u) << c.path;
    EXPECT_EQ(counts.errors, std::string(c.path) == "nothing" ? 0u : 1u) << c.path;
    // While it rests, the next request is not even made.
    EXPECT_FALSE(store.Fetch(name, data, &permanent));
    EXPECT_EQ(store.GetCounts().skipped, c.rests ? 1u : 0u) << c.path;
  }
  // The object is valid for its own name: the same server serves it.
  EffectRemoteStore store(SettingsFor(server->Url() + "object"));
  Tab<unsigned char> data;
  ASSERT_TRUE(store.Fetch("team/another.fxo", data, nullptr));
  EXPECT_EQ(EffectTesting::ToVector(data), otherBytes);
}

// A save's PUTs are made without the object's lock: while one hangs on the
// server, the host's other threads find stored effects and read the
// counts (with the lock held through the PUTs, the search would wait for
// the request to time out, and find it failed). In the foreground and by
// the worker.
TEST_F(EffectRemoteStoreServerTest, ASearchDoesNotWaitForTheRemoteStoreOfASave) {
  auto server = RemoteServer::StartFaults(dir_.Path() / "faults");
  if (!server) TOVREL_SKIP_OR_FAIL(RemoteServer::WhyNone());
  const EffectRemoteStore::Settings settings = SettingsFor(server->Url() + "hang/fx");
  for (const bool background : {false, true}) {
    SCOPED_TRACE(background ? "in the background" : "in the foreground");
    const std::wstring folder = (dir_.Path() / (background ? "worker" : "host")).wstring();
    fs::create_directories(folder);
    const auto stored = Bytes(0);
    {
      EffectCacheImpl cache(WStr(folder.c_str()), 2);
      ASSERT_TRUE(cache.CacheCompiledEffect(WStr(WideName(0).c_str()), stored.data(), stored.size(), false));
      cache.ForceSaveToFile();
    }
    EffectCacheImpl cache(WStr(folder.c_str()), 2);
    cache.SetBackgroundSaving(background);
    cache.SetRemoteStore(&settings);
    const auto added = Bytes(1);
    ASSERT_TRUE(cache.CacheCompiledEffect(WStr(WideName(1).c_str()), added.data(), added.size(), false));
    std::thread saver([&cache] { cache.ForceSaveToFile(); });
    // The save takes milliseconds; its PUT then hangs for the store's
    // transfer limit (3 s).
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    Tab<unsigned char> data;
    const bool found = cache.SearchCachedEffects(WStr(WideName(0).c_str()), data);
    const EffectRemoteStore::Counts during = cache.GetRemoteCounts();
    saver.join();
    ASSERT_TRUE(found);
    EXPECT_EQ(EffectTesting::ToVector(data), stored);
    EXPECT_EQ(during.errors, 0u) << "the search waited for the PUT to fail";
    EXPECT_EQ(cache.GetRemoteCounts().errors, 1u);
    EXPECT_EQ(cache.GetNumberOfEffectsInFile(), 2u);
  }
}

TEST_F(EffectRemoteStoreServerTest, ADeadServerCostsOneFailureThenRests) {
  EffectRemoteStore::Settings settings = SettingsFor(RemoteServer::DeadUrl());
  EffectRemoteStore store(settings);
  Tab<unsigned char> data;
  EXPECT_FALSE(store.Fetch("a.fxo", data, nullptr));
  const std::vector<std::uint8_t> compressed(10, 1);
  EXPECT_FALSE(store.Store("b.fxo", false, 100, compressed.data(), compressed.size()));
  EXPECT_FALSE(store.Fetch("c.fxo", data, nullptr));
  const EffectRemoteStore::Counts counts = store.GetCounts();
  EXPECT_EQ(counts.errors, 1u);
  EXPECT_EQ(counts.skipped, 2u);
  // A cache with a dead store works as one without.
  const std::wstring folder = (dir_.Path() / "alone").wstring();
  fs::create_directories(folder);
  EffectCacheImpl cache(WStr(folder.c_str()), 2);
  cache.SetRemoteStore(&settings);
  const auto bytes = Bytes(3);
  ASSERT_TRUE(cache.CacheCompiledEffect(WStr(L"x.fxo"), bytes.data(), bytes.size(), false));
  cache.ForceSaveToFile();
  EXPECT_TRUE(cache.IsEnabled());
  ASSERT_TRUE(cache.SearchCachedEffects(WStr(L"x.fxo"), data));
  EXPECT_EQ(EffectTesting::ToVector(data), bytes);
  EXPECT_FALSE(cache.SearchCachedEffects(WStr(L"y.fxo"), data));
}

// For a test process that cannot start Linux programs (the Windows tests
// under wine): serves nginx, the fault server and the team server until
// FOLDER/stop appears, after writing their URLs to FOLDER/urls ("NGINX
// FAULTS" on the first line, the team server's fields on the second).
TOVREL_CHILD_ROLE(remote_servers) {
  if (argc != 1) return 2;
  const fs::path folder = fs::u8path(argv[0]);
  auto nginx = RemoteServer::StartNginx(folder / "nginx");
  if (!nginx) {
    std::cerr << RemoteServer::WhyNone() << "\n";
    return 3;
  }
  auto faults = RemoteServer::StartFaults(folder / "faults");
  if (!faults) {
    std::cerr << RemoteServer::WhyNone() << "\n";
    return 3;
  }
  auto team = RemoteServer::StartTeam(folder / "team");
  if (!team) {
    std::cerr << RemoteServer::WhyNone() << "\n";
    return 3;
  }
  const RemoteServer::TeamUrls& t = team->Team();
  std::ofstream(folder / "urls.part") << nginx->Url() << " " << faults->Url() << "\n"
                                      << t.right << " " << t.wrongHost << " " << t.expired << " " << t.basic << " "
                                      << t.ca << " " << t.otherCa << "\n";
  fs::rename(folder / "urls.part", folder / "urls");
  while (!fs::exists(folder / "stop")) std::this_thread::sleep_for(std::chrono::milliseconds(100));
  return 0;
}

}  // namespace
}  // namespace Tovrel
