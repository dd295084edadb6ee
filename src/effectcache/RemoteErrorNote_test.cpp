#include "effectcache/RemoteErrorNote.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "effectcache/EffectCacheImpl.h"
#include "effectcache/EffectRemoteStore.h"
#include "support/EffectTesting.h"
#include "support/RemoteServer.h"
#include "support/TempDir.h"

namespace Tovrel {
namespace {

using Testing::EffectTesting;
using Testing::RemoteServer;

std::wstring NotePath(const Testing::TempDir& dir) {
  return RemoteErrorNote::PathFor((dir.Path() / "norvaneFxoCache.dat").wstring());
}

TEST(RemoteErrorNoteTest, IsReadBackAsWritten) {
  Testing::TempDir dir;
  RemoteErrorNote note;
  note.time = CacheTimeStamp::FromSeconds(1795000000);
  note.message = "GET http://host/fx/ab/cd: HTTP 500";
  ASSERT_TRUE(RemoteErrorNote::Write(NotePath(dir), note));
  EXPECT_TRUE(std::filesystem::exists(dir.Path() / "norvaneFxoCache.remote-error"));
  RemoteErrorNote read;
  ASSERT_TRUE(RemoteErrorNote::Read(NotePath(dir), &read));
  EXPECT_EQ(read.message, note.message);
  EXPECT_TRUE(read.time == note.time);
  EXPECT_FALSE(std::filesystem::exists(dir.Path() / "norvaneFxoCache.remote-error.new"));
  EXPECT_TRUE(RemoteErrorNote::Remove(NotePath(dir)));
  EXPECT_FALSE(RemoteErrorNote::Read(NotePath(dir), &read));
  EXPECT_TRUE(read.message.empty());
  EXPECT_TRUE(RemoteErrorNote::Remove(NotePath(dir))) << "none there is removed too";
}

TEST(RemoteErrorNoteTest, ALongMessageIsCutBetweenCharacters) {
  RemoteErrorNote note;
  // 1,023 ASCII bytes, then a two-byte character that would end past the limit.
  note.message = std::string(RemoteErrorNote::kMessageLimit - 1, 'a') + "\xC3\xA9" + "tail";
  const std::vector<std::uint8_t> bytes = note.Encode();
  RemoteErrorNote read;
  ASSERT_TRUE(RemoteErrorNote::Decode(bytes.data(), bytes.size(), &read));
  EXPECT_EQ(read.message, std::string(RemoteErrorNote::kMessageLimit - 1, 'a'));
  note.message = std::string(RemoteErrorNote::kMessageLimit + 50, 'b');
  const std::vector<std::uint8_t> longer = note.Encode();
  ASSERT_TRUE(RemoteErrorNote::Decode(longer.data(), longer.size(), &read));
  EXPECT_EQ(read.message.size(), RemoteErrorNote::kMessageLimit);
}

TEST(RemoteErrorNoteTest, AFileOfAnyOtherShapeIsNoNote) {
  RemoteErrorNote note;
  note.message = "PUT http://host/x: HTTP 405";
  const std::vector<std::uint8_t> good = note.Encode();
  RemoteErrorNote read;
  for (std::size_t i = 0; i < good.size(); ++i) {
    std::vector<std::uint8_t> bytes = good;
    bytes[i] ^= 0x10;
    EXPECT_FALSE(RemoteErrorNote::Decode(bytes.data(), bytes.size(), &read)) << "byte " << i;
    EXPECT_TRUE(read.message.empty());
  }
  EXPECT_FALSE(RemoteErrorNote::Decode(good.data(), good.size() - 1, &read));
  std::vector<std::uint8_t> longer = good;
  longer.push_back(0);
  EXPECT_FALSE(RemoteErrorNote::Decode(longer.data(), longer.size(), &read));
  EXPECT_FALSE(RemoteErrorNote::Decode(good.data(), 0, &read));
}

// A cache whose store cannot be reached notes why when it ends, without
// the credentials of the store's URL; zeroing the statistics removes it.
TEST(RemoteErrorNoteTest, ACacheNotesItsStoresLastFailureWithoutCredentials) {
  Testing::TempDir dir;
  const std::string dead = RemoteServer::DeadUrl();  // "http://host:port/..."
  const std::string withCredentials = "http://builder:s3cret@" + dead.substr(std::string("http://").size());
  const CacheTimeStamp before = CacheTimeStamp::FromSeconds(CacheTimeStamp::Now().Seconds() - 1);
  {
    EffectCacheImpl cache(WStr(dir.Path().wstring().c_str()), 2);
    ASSERT_TRUE(cache.SetRemoteStore(std::wstring(withCredentials.begin(), withCredentials.end()).c_str()));
    const std::vector<unsigned char> bytes = EffectTesting::Bytes(1, 3000, true);
    ASSERT_TRUE(cache.CacheCompiledEffect(WStr(L"saved.fxo"), bytes.data(), bytes.size(), false));
    cache.ForceSaveToFile();
    Tab<unsigned char> data;
    EXPECT_FALSE(cache.SearchCachedEffects(WStr(L"nowhere.fxo"), data));
    EXPECT_FALSE(std::filesystem::exists(dir.Path() / "norvaneFxoCache.remote-error"))
        << "noted at the next save or at the end";
  }
  RemoteErrorNote note;
  ASSERT_TRUE(RemoteErrorNote::Read(NotePath(dir), &note));
  EXPECT_NE(note.message.find(dead), std::string::npos) << note.message;
  EXPECT_EQ(note.message.find("s3cret"), std::string::npos) << note.message;
  EXPECT_EQ(note.message.find("builder"), std::string::npos) << note.message;
  EXPECT_FALSE(note.time < before);

  // A later object whose store does not fail leaves the note as it is.
  {
    EffectCacheImpl cache(WStr(dir.Path().wstring().c_str()), 2);
    Tab<unsigned char> data;
    EXPECT_TRUE(cache.SearchCachedEffects(WStr(L"saved.fxo"), data));
  }
  RemoteErrorNote kept;
  ASSERT_TRUE(RemoteErrorNote::Read(NotePath(dir), &kept));
  EXPECT_EQ(kept.message, note.message);

  EffectCacheImpl zeroing(WStr(dir.Path().wstring().c_str()), 2);
  ASSERT_TRUE(zeroing.ZeroStatistics());
  EXPECT_FALSE(std::filesystem::exists(dir.Path() / "norvaneFxoCache.remote-error"));
}

// A save notes a failure at once: a host that runs for hours does not
// wait for its end to tell it.
TEST(RemoteErrorNoteTest, ASaveNotesAFailureSinceTheLastOne) {
  Testing::TempDir dir;
  EffectCacheImpl cache(WStr(dir.Path().wstring().c_str()), 2);
  const std::string dead = RemoteServer::DeadUrl();
  ASSERT_TRUE(cache.SetRemoteStore(std::wstring(dead.begin(), dead.end()).c_str()));
  Tab<unsigned char> data;
  EXPECT_FALSE(cache.SearchCachedEffects(WStr(L"nowhere.fxo"), data));
  const std::vector<unsigned char> bytes = EffectTesting::Bytes(2, 3000, true);
  ASSERT_TRUE(cache.CacheCompiledEffect(WStr(L"a.fxo"), bytes.data(), bytes.size(), false));
  cache.ForceSaveToFile();
  RemoteErrorNote note;
  ASSERT_TRUE(RemoteErrorNote::Read(NotePath(dir), &note));
  EXPECT_NE(note.message.find("GET " + dead), std::string::npos) << note.message;
}

}  // namespace
}  // namespace Tovrel
