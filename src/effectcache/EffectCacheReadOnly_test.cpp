// A cache file that may be read but not written (deployed with the host,
// on a read-only share) serves every search, is never written, and keeps
// new effects in memory.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "effectcache/EffectCacheImpl.h"
#include "effectcache/EffectCacheMaintenance.h"
#include "platform/FileFaults.h"
#include "support/EffectTesting.h"
#include "support/InstalledFileSystem.h"
#include "support/TempDir.h"

namespace Tovrel {
namespace {

using Testing::EffectTesting;

constexpr int kEffects = 30;

std::wstring Name(int i) { return L"deployed/" + std::to_wstring(i) + L".fxo"; }
std::vector<unsigned char> Bytes(int i) {
  return EffectTesting::Bytes(static_cast<std::uint32_t>(i + 7), 2000 + 300 * static_cast<std::size_t>(i), i % 2 == 0);
}

// Fills the folder's cache with kEffects effects.
void Fill(const std::wstring& folder) {
  EffectCacheImpl cache(WStr(folder.c_str()), 2);
  ASSERT_TRUE(cache.IsEnabled());
  for (int i = 0; i < kEffects; ++i) {
    const auto bytes = Bytes(i);
    ASSERT_TRUE(cache.CacheCompiledEffect(WStr(Name(i).c_str()), bytes.data(), bytes.size(), i == 3));
  }
  cache.ForceSaveToFile();
}

void ExpectEveryEffect(EffectCacheImpl& cache) {
  for (int i = 0; i < kEffects; ++i) {
    Tab<unsigned char> data;
    ASSERT_TRUE(cache.SearchCachedEffects(WStr(Name(i).c_str()), data)) << i;
    EXPECT_EQ(EffectTesting::ToVector(data), Bytes(i)) << i;
  }
}

class EffectCacheReadOnlyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Fill(kFolder);
    before_ = files_.Memory().ReadAll(CacheFile());
    ASSERT_FALSE(before_.empty());
    files_.Memory().SetReadOnly(kFolder);
  }
  void TearDown() override { FileFaults::Reset(); }
  static std::wstring CacheFile() {
    return std::wstring(EffectCacheImpl::CacheFilePathFor(WStr(kFolder)).data());
  }

  static constexpr const wchar_t* kFolder = L"shipped";
  Testing::InstalledFileSystem files_;
  std::vector<std::uint8_t> before_;
};

TEST_F(EffectCacheReadOnlyTest, EveryStoredEffectIsFoundAndTheFileIsNeverWritten) {
  {
    EffectCacheImpl cache(WStr(kFolder), 2);
    ASSERT_TRUE(cache.IsEnabled());
    EXPECT_TRUE(cache.IsReadOnly());
    EXPECT_EQ(cache.GetNumberOfEffectsInFile(), static_cast<std::size_t>(kEffects));
    ExpectEveryEffect(cache);
    // A new effect stays in memory and is found there; saving writes nothing.
    const auto bytes = Bytes(99);
    ASSERT_TRUE(cache.CacheCompiledEffect(WStr(L"new/one.fxo"), bytes.data(), bytes.size(), false));
    cache.ForceSaveToFile();
    EXPECT_TRUE(cache.IsEnabled());
    Tab<unsigned char> data;
    ASSERT_TRUE(cache.SearchCachedEffects(WStr(L"new/one.fxo"), data));
    EXPECT_EQ(EffectTesting::ToVector(data), bytes);
    EXPECT_EQ(cache.GetNumberOfEffectsInFile(), static_cast<std::size_t>(kEffects));
  }
  EXPECT_EQ(files_.Memory().ReadAll(CacheFile()), before_);
  EXPECT_FALSE(files_.Memory().Exists((CacheFile() + L"-journal").c_str()));
}

TEST_F(EffectCacheReadOnlyTest, ASizeLimitBelowTheFileTrimsNothingAndBoundsWhatIsHeldInMemory) {
  const std::uint64_t limit = 20000;  // far below what the file stores
  EffectCacheImpl cache(WStr(kFolder), 2, limit);
  ASSERT_TRUE(cache.IsEnabled());
  ExpectEveryEffect(cache);
  const std::vector<unsigned char> small(5000, 1);
  int kept = 0;
  for (int i = 0; i < 10; ++i) {
    if (cache.CacheCompiledEffect(WStr((L"new/" + std::to_wstring(i)).c_str()), small.data(), small.size(), false)) {
      ++kept;
    }
  }
  EXPECT_GT(kept, 0);
  EXPECT_LT(kept, 10);
  EXPECT_LE(cache.GetPendingBytes(), limit);
  EXPECT_EQ(files_.Memory().ReadAll(CacheFile()), before_);
}

TEST_F(EffectCacheReadOnlyTest, AStaleJournalIsReadThroughAndNotReloadedAtEverySearch) {
  // A journal whose header never got written: a writer that died before
  // it changed anything. A read-only opener can neither delete it nor roll
  // it back, and must not read the whole file again for every search.
  files_.Memory().WriteAll(CacheFile() + L"-journal", std::vector<std::uint8_t>(7, 0x55));
  EffectCacheImpl cache(WStr(kFolder), 2);
  ASSERT_TRUE(cache.IsEnabled());
  ExpectEveryEffect(cache);
  FileFaults::StartCounting();
  for (int round = 0; round < 5; ++round) ExpectEveryEffect(cache);
  EXPECT_EQ(FileFaults::Calls(FileCall::kOpen), 0u);
  EXPECT_EQ(files_.Memory().ReadAll(CacheFile()), before_);
  EXPECT_TRUE(files_.Memory().Exists((CacheFile() + L"-journal").c_str()));
}

TEST(EffectCacheReadOnlyEmptyTest, AnEmptyCacheFileOpensReadOnlyToo) {
  Testing::InstalledFileSystem files;
  {
    EffectCacheImpl made(WStr(L"empty"), 2);
    ASSERT_TRUE(made.IsEnabled());
  }
  const std::vector<std::uint8_t> before = files.Memory().ReadAll(L"empty/norvaneFxoCache.dat");
  files.Memory().SetReadOnly(L"empty");
  EffectCacheImpl cache(WStr(L"empty"), 2);
  ASSERT_TRUE(cache.IsEnabled());
  EXPECT_TRUE(cache.IsReadOnly());
  EXPECT_EQ(cache.GetNumberOfEffectsInFile(), 0u);
  Tab<unsigned char> data;
  EXPECT_FALSE(cache.SearchCachedEffects(WStr(L"x"), data));
  EXPECT_EQ(files.Memory().ReadAll(L"empty/norvaneFxoCache.dat"), before);
}

TEST_F(EffectCacheReadOnlyTest, MaintenanceIsRefusedAndChangesNothing) {
  EXPECT_FALSE(EffectCacheMaintenance::Clear(WStr(kFolder), false, false).ok);
  EXPECT_FALSE(EffectCacheMaintenance::Compact(WStr(kFolder)).ok);
  EXPECT_FALSE(EffectCacheMaintenance::ZeroStatistics(WStr(kFolder)));
  EXPECT_EQ(files_.Memory().ReadAll(CacheFile()), before_);
}

// The same through the system's own permissions: a file without write
// permission. Skipped where permissions do not stop this process (root).
TEST(EffectCacheReadOnlyFileTest, AFileWithoutWritePermissionServesEverySearch) {
  Testing::TempDir dir;
  const std::wstring folder = dir.Path().wstring();
  Fill(folder);
  const std::filesystem::path file(dir.File("norvaneFxoCache.dat"));
  const std::vector<std::uint8_t> before = Testing::TempDir::ReadAll(file.wstring());
  std::filesystem::permissions(file, std::filesystem::perms::owner_read | std::filesystem::perms::group_read |
                                         std::filesystem::perms::others_read);
  const bool stillWritable = std::ofstream(file, std::ios::in | std::ios::out | std::ios::binary).is_open();
  if (stillWritable) {
    std::filesystem::permissions(file, std::filesystem::perms::owner_write, std::filesystem::perm_options::add);
    GTEST_SKIP() << "this process may write files without write permission";
  }
  {
    EffectCacheImpl cache(WStr(folder.c_str()), 2);
    ASSERT_TRUE(cache.IsEnabled());
    EXPECT_TRUE(cache.IsReadOnly());
    ExpectEveryEffect(cache);
  }
  EXPECT_EQ(Testing::TempDir::ReadAll(file.wstring()), before);
  std::filesystem::permissions(file, std::filesystem::perms::owner_write, std::filesystem::perm_options::add);
}

// A read-only bind mount of a cache folder: the system refuses every
// write, whoever asks. Where mounts cannot be made (no privilege, Windows)
// the test is skipped.
class ReadOnlyMount {
 public:
  ReadOnlyMount(const std::filesystem::path& source, const std::filesystem::path& target) : target_(target) {
#ifndef _WIN32
    std::filesystem::create_directories(target);
    const std::string quiet = " >/dev/null 2>&1";
    mounted_ = std::system(("mount --bind '" + source.string() + "' '" + target.string() + "'" + quiet).c_str()) == 0;
    if (mounted_) {
      readOnly_ = std::system(("mount -o remount,ro,bind '" + target.string() + "'" + quiet).c_str()) == 0;
    }
#else
    (void)source;
#endif
  }
  ~ReadOnlyMount() {
    if (mounted_) std::system(("umount '" + target_.string() + "' >/dev/null 2>&1").c_str());
  }
  bool IsReadOnly() const { return mounted_ && readOnly_; }

 private:
  std::filesystem::path target_;
  bool mounted_ = false;
  bool readOnly_ = false;
};

TEST(EffectCacheReadOnlyFileTest, ACacheOnAReadOnlyMountServesEverySearch) {
  Testing::TempDir dir;
  const std::filesystem::path source = dir.Path() / "source";
  const std::filesystem::path target = dir.Path() / "mounted";
  std::filesystem::create_directories(source);
  Fill(source.wstring());
  const std::vector<std::uint8_t> before = Testing::TempDir::ReadAll((source / "norvaneFxoCache.dat").wstring());
  {
    ReadOnlyMount mount(source, target);
    if (!mount.IsReadOnly()) GTEST_SKIP() << "no read-only mount can be made here";
    {
      EffectCacheImpl cache(WStr(target.wstring().c_str()), 2);
      ASSERT_TRUE(cache.IsEnabled());
      EXPECT_TRUE(cache.IsReadOnly());
      ExpectEveryEffect(cache);
      const auto bytes = Bytes(50);
      EXPECT_TRUE(cache.CacheCompiledEffect(WStr(L"new/one.fxo"), bytes.data(), bytes.size(), false));
      cache.ForceSaveToFile();
      EXPECT_TRUE(cache.IsEnabled());
    }
    EXPECT_FALSE(std::filesystem::exists(target / "norvaneFxoCache.dat-journal"));
  }
  EXPECT_EQ(Testing::TempDir::ReadAll((source / "norvaneFxoCache.dat").wstring()), before);
}

}  // namespace
}  // namespace Tovrel
