// The remote store against a studio's team server: nginx over HTTPS with
// the configuration docs/REMOTE.md gives, tokens, basic authentication,
// and certificates that must verify.
#include "effectcache/EffectRemoteStore.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "effectcache/RemoteEffectObject.h"
#include "support/EffectTesting.h"
#include "support/RemoteServer.h"
#include "support/ScopedVariable.h"
#include "support/TempDir.h"
#include "support/TestRun.h"

namespace Tovrel {
namespace {

namespace fs = std::filesystem;
using Testing::EffectTesting;
using Testing::RemoteServer;
using Testing::ScopedVariable;
using Testing::TempDir;

std::vector<unsigned char> Bytes(int i) { return EffectTesting::Bytes(static_cast<std::uint32_t>(7 + i), 5000, true); }

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

class EffectRemoteStoreTeamTest : public testing::Test {
 protected:
  void SetUp() override {
    server_ = RemoteServer::StartTeam(dir_.Path() / "nginx");
    if (!server_) TOVREL_SKIP_OR_FAIL(RemoteServer::WhyNone());
    // A folder of this test's own: a server the runner started outlives it.
    const std::string own = dir_.Path().filename().u8string() + "/";
    right_ = server_->Team().right + own;
    wrongHost_ = server_->Team().wrongHost + own;
    expired_ = server_->Team().expired + own;
    basic_ = server_->Team().basic + own;
    readToken_ = Write("read-token", std::string(RemoteServer::kReadToken) + "\n");
    writeToken_ = Write("write-token", std::string(RemoteServer::kWriteToken) + "\n");
  }

  std::string Write(const std::string& name, const std::string& bytes) {
    const fs::path file = dir_.Path() / name;
    std::ofstream(file, std::ios::binary) << bytes;
    return file.u8string();
  }

  // A store of `url` with these options, bounded for a loaded machine.
  static EffectRemoteStore::Settings Store(const std::string& url, const std::string& options) {
    EffectRemoteStore::Settings settings;
    EXPECT_TRUE(RemoteStoreSettings::Parse(url + options, &settings)) << options;
    settings.connectMilliseconds = 2000;
    settings.transferMilliseconds = 5000;
    return settings;
  }

  // PUTs effect `i`: true when the store took it.
  static bool Put(EffectRemoteStore& store, int i) {
    const std::vector<unsigned char> bytes = Bytes(i);
    const std::vector<std::uint8_t> compressed = EffectTesting::Compressed(bytes);
    return store.Store("team/" + std::to_string(i), false, bytes.size(), compressed.data(), compressed.size());
  }

  // True when the server holds effect `i` (asked with the read token).
  bool Held(int i) const {
    EffectRemoteStore reader(Store(right_, "|ca=" + server_->Team().ca + "|token-file=" + readToken_));
    Tab<unsigned char> data;
    return reader.Fetch("team/" + std::to_string(i), data, nullptr);
  }

  ScopedVariable noToken_{"TOVREL_EFFECT_CACHE_REMOTE_TOKEN", nullptr};
  TempDir dir_;
  std::unique_ptr<RemoteServer> server_;
  std::string right_;
  std::string wrongHost_;
  std::string expired_;
  std::string basic_;
  std::string readToken_;
  std::string writeToken_;
};

TEST_F(EffectRemoteStoreTeamTest, TheBuildFarmWritesOverHttpsAndWorkstationsRead) {
  EffectRemoteStore farm(Store(right_, "|ca=" + server_->Team().ca + "|token-file=" + writeToken_));
  ASSERT_TRUE(Put(farm, 1)) << farm.GetLastError();
  ASSERT_TRUE(Put(farm, 2)) << farm.GetLastError();
  EXPECT_TRUE(Held(1));
  EffectRemoteStore workstation(Store(right_, "|ca=" + server_->Team().ca + "|token-file=" + readToken_));
  for (int i : {1, 2}) {
    Tab<unsigned char> data;
    ASSERT_TRUE(workstation.Fetch("team/" + std::to_string(i), data, nullptr)) << workstation.GetLastError();
    EXPECT_EQ(EffectTesting::ToVector(data), Bytes(i));
  }
  Tab<unsigned char> data;
  EXPECT_FALSE(workstation.Fetch("team/never-stored", data, nullptr));
  const EffectRemoteStore::Counts counts = workstation.GetCounts();
  EXPECT_EQ(counts.hits, 2u);
  EXPECT_EQ(counts.misses, 1u);
  EXPECT_EQ(counts.errors, 0u);
  // The token may come from the environment instead.
  ScopedVariable token("TOVREL_EFFECT_CACHE_REMOTE_TOKEN", RemoteServer::kReadToken);
  EffectRemoteStore fromEnvironment(Store(right_, "|ca=" + server_->Team().ca));
  ASSERT_TRUE(fromEnvironment.Fetch("team/1", data, nullptr)) << fromEnvironment.GetLastError();
}

// A certificate that does not verify is an error, counted, and the store
// rests; nothing is sent to such a server, not even a write token's PUT.
TEST_F(EffectRemoteStoreTeamTest, CertificatesThatDoNotVerifyAreRefused) {
  struct Case {
    const char* what;
    std::string url;
    std::string options;
  };
  const std::string token = "|token-file=" + writeToken_;
  for (const Case& c : {Case{"the system's trust store", right_, token},
                        Case{"another CA", right_, "|ca=" + server_->Team().otherCa + token},
                        Case{"another host's certificate", wrongHost_, "|ca=" + server_->Team().ca + token},
                        Case{"an expired certificate", expired_, "|ca=" + server_->Team().ca + token}}) {
    EffectRemoteStore store(Store(c.url, c.options));
    EXPECT_FALSE(Put(store, 3)) << c.what;
    EXPECT_EQ(store.GetCounts().errors, 1u) << c.what;
    EXPECT_NE(Lower(store.GetLastError()).find("certificate"), std::string::npos) << c.what << ": " << store.GetLastError();
    Tab<unsigned char> data;
    EXPECT_FALSE(store.Fetch("team/3", data, nullptr)) << c.what;
    EXPECT_EQ(store.GetCounts().skipped, 1u) << c.what << ": the store rests";
    EXPECT_FALSE(Held(3)) << c.what << ": " << store.GetLastError();
  }
  EXPECT_FALSE(Held(3));
}

// Without a token every request is refused (401), a PUT with the read
// token too (403): each is an error, and the store rests rather than ask
// again.
TEST_F(EffectRemoteStoreTeamTest, RequestsWithoutTheRightCredentialsAreRefused) {
  EffectRemoteStore farm(Store(right_, "|ca=" + server_->Team().ca + "|token-file=" + writeToken_));
  ASSERT_TRUE(Put(farm, 4)) << farm.GetLastError();
  EffectRemoteStore anonymous(Store(right_, "|ca=" + server_->Team().ca));
  Tab<unsigned char> data;
  EXPECT_FALSE(anonymous.Fetch("team/4", data, nullptr));
  EXPECT_NE(anonymous.GetLastError().find(": HTTP 401"), std::string::npos) << anonymous.GetLastError();
  EXPECT_FALSE(Put(anonymous, 5));
  EXPECT_EQ(anonymous.GetCounts().errors, 1u);
  EXPECT_EQ(anonymous.GetCounts().skipped, 1u);
  EffectRemoteStore reader(Store(right_, "|ca=" + server_->Team().ca + "|token-file=" + readToken_));
  EXPECT_FALSE(Put(reader, 5));
  EXPECT_NE(reader.GetLastError().find(": HTTP 403"), std::string::npos) << reader.GetLastError();
  EXPECT_EQ(reader.GetCounts().errors, 1u);
  EXPECT_FALSE(reader.Fetch("team/4", data, nullptr));
  EXPECT_EQ(reader.GetCounts().skipped, 1u);
  const std::string wrong = Write("wrong-token", "not-the-token\n");
  EffectRemoteStore guessing(Store(right_, "|ca=" + server_->Team().ca + "|token-file=" + wrong));
  EXPECT_FALSE(guessing.Fetch("team/4", data, nullptr));
  EXPECT_NE(guessing.GetLastError().find(": HTTP 401"), std::string::npos) << guessing.GetLastError();
  EXPECT_TRUE(Held(4));
  EXPECT_FALSE(Held(5));
}

TEST_F(EffectRemoteStoreTeamTest, BasicAuthenticationComesFromTheUrl) {
  const std::string url = basic_;
  const std::string withCredentials =
      url.substr(0, 7) + RemoteServer::kBasicUser + ":s3cret%40p%25ss@" + url.substr(7);
  EffectRemoteStore store(Store(withCredentials, ""));
  ASSERT_TRUE(Put(store, 6)) << store.GetLastError();
  Tab<unsigned char> data;
  ASSERT_TRUE(store.Fetch("team/6", data, nullptr)) << store.GetLastError();
  EXPECT_EQ(EffectTesting::ToVector(data), Bytes(6));
  for (const std::string& refused : {url, url.substr(0, 7) + RemoteServer::kBasicUser + ":wrong@" + url.substr(7)}) {
    EffectRemoteStore without(Store(refused, ""));
    EXPECT_FALSE(without.Fetch("team/6", data, nullptr));
    EXPECT_NE(without.GetLastError().find(": HTTP 401"), std::string::npos) << without.GetLastError();
    EXPECT_EQ(without.GetLastError().find("wrong"), std::string::npos) << without.GetLastError();
  }
}

}  // namespace
}  // namespace Tovrel
