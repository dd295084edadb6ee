// A cache file that may be read but not written (deployed with the host,
// on a read-only share, or in a folder that refuses the journal) serves
// every search, is never written, and keeps new effects in memory.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#ifndef _WIN32
#include <sys/mount.h>
#endif

#include "effectcache/CacheWriteAccess.h"
#include "effectcache/EffectCacheImpl.h"
#include "effectcache/EffectCacheMaintenance.h"
#include "platform/FileFaults.h"
#include "platform/PlatformFile.h"
#include "support/ChildLauncher.h"
#include "support/ChildProcess.h"
#include "support/EffectTesting.h"
#include "support/InstalledFileSystem.h"
#include "support/TempDir.h"
#include "support/TestRun.h"
#include "support/UnprivilegedUser.h"

namespace Tovrel {
namespace {

using Testing::EffectTesting;
using Why = CacheWriteAccess::Why;

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

void ExpectFound(EffectCacheImpl& cache, const std::wstring& name, const std::vector<unsigned char>& bytes) {
  Tab<unsigned char> data;
  ASSERT_TRUE(cache.SearchCachedEffects(WStr(name.c_str()), data));
  EXPECT_EQ(EffectTesting::ToVector(data), bytes);
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
    return std::wstring(CacheFileNames::CacheFilePathFor(WStr(kFolder)).data());
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
// permission, opened by a process that the permission stops, in a folder
// of its own. The file is served read only and never written.
void ExpectServedReadOnly(const std::filesystem::path& folder, const std::filesystem::path& file) {
  const std::vector<std::uint8_t> before = Testing::TempDir::ReadAll(file.wstring());
  ASSERT_FALSE(before.empty());
  ASSERT_FALSE(std::ofstream(file, std::ios::in | std::ios::out | std::ios::binary).is_open())
      << "the permission does not stop this process";
  {
    EffectCacheImpl cache(WStr(folder.wstring().c_str()), 2);
    ASSERT_TRUE(cache.IsEnabled());
    EXPECT_TRUE(cache.IsReadOnly());
    ExpectEveryEffect(cache);
    const auto bytes = Bytes(60);
    EXPECT_TRUE(cache.CacheCompiledEffect(WStr(L"new/one.fxo"), bytes.data(), bytes.size(), false));
    cache.ForceSaveToFile();
    EXPECT_TRUE(cache.IsEnabled());
  }
  EXPECT_EQ(Testing::TempDir::ReadAll(file.wstring()), before);
  EXPECT_FALSE(std::filesystem::exists(folder / "norvaneFxoCache.dat-journal"));
}

void ExpectAFileWithoutWritePermissionServedReadOnly(const std::filesystem::path& folder) {
  Fill(folder.wstring());
  const std::filesystem::path file = folder / "norvaneFxoCache.dat";
  std::filesystem::permissions(file, std::filesystem::perms::owner_read | std::filesystem::perms::group_read |
                                         std::filesystem::perms::others_read);
  ExpectServedReadOnly(folder, file);
  // Windows removes no file that is read only.
  std::filesystem::permissions(file, std::filesystem::perms::owner_write, std::filesystem::perm_options::add);
}

// Takes on the account given by its ids (argv[1], argv[2]), then runs the
// checks above in folder argv[0], which the account owns. Exit status 0
// when every check held; a failed check prints itself.
TOVREL_CHILD_ROLE(read_only_file_as_user) {
  std::filesystem::path folder;
  std::string why;
  if (!Testing::UnprivilegedUser::BecomeFromArguments(argc, argv, &folder, &why)) {
    std::cerr << why << "\n";
    return 3;
  }
  ExpectAFileWithoutWritePermissionServedReadOnly(folder);
  return ::testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed() ? 1 : 0;
}

// Run as root, whom permissions do not stop, the test gives the folder to
// an unprivileged account and runs the checks in a child process that
// takes that account on.
TEST(EffectCacheReadOnlyFileTest, AFileWithoutWritePermissionServesEverySearch) {
  Testing::TempDir dir;
  const std::filesystem::path folder = dir.Path() / "deployed";
  std::filesystem::create_directories(folder);
  if (!Testing::UnprivilegedUser::ThisProcessIsPrivileged()) {
#ifdef _WIN32
    const std::filesystem::path probe = folder / "probe";
    { std::ofstream(probe) << "x"; }
    std::filesystem::permissions(probe, std::filesystem::perms::owner_read);
    const bool stopped = !std::ofstream(probe, std::ios::in | std::ios::out).is_open();
    std::filesystem::permissions(probe, std::filesystem::perms::owner_write, std::filesystem::perm_options::add);
    if (!stopped) GTEST_SKIP() << "the read-only attribute does not stop this process (wine run by root)";
#endif
    ExpectAFileWithoutWritePermissionServedReadOnly(folder);
    return;
  }
  std::string why;
  EXPECT_EQ(Testing::UnprivilegedUser::RunChildAs("read_only_file_as_user", folder, &why), 0)
      << "the checks as an unprivileged user failed (see above) " << why;
}

#ifndef _WIN32
// A read-only bind mount of a cache folder: the system refuses every
// write, whoever asks (root included). Made and undone by root alone.
class ReadOnlyMount {
 public:
  ReadOnlyMount(const std::filesystem::path& source, const std::filesystem::path& target) : target_(target) {
    std::filesystem::create_directories(target);
    if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0) {
      why_ = std::string("bind mount: ") + std::strerror(errno);
      return;
    }
    mounted_ = true;
    if (mount(nullptr, target.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) != 0) {
      why_ = std::string("remounting it read only: ") + std::strerror(errno);
      return;
    }
    readOnly_ = true;
  }
  ~ReadOnlyMount() {
    if (mounted_) umount(target_.c_str());
  }
  bool IsReadOnly() const { return readOnly_; }
  // Why no read-only mount was made.
  const std::string& Why() const { return why_; }

 private:
  std::filesystem::path target_;
  bool mounted_ = false;
  bool readOnly_ = false;
  std::string why_;
};

TEST(EffectCacheReadOnlyFileTest, ACacheOnAReadOnlyMountServesEverySearch) {
  if (!Testing::UnprivilegedUser::ThisProcessIsPrivileged()) TOVREL_SKIP_OR_FAIL("only root can make a mount");
  Testing::TempDir dir;
  const std::filesystem::path source = dir.Path() / "source";
  const std::filesystem::path target = dir.Path() / "mounted";
  std::filesystem::create_directories(source);
  Fill(source.wstring());
  const std::vector<std::uint8_t> before = Testing::TempDir::ReadAll((source / "norvaneFxoCache.dat").wstring());
  {
    ReadOnlyMount mount(source, target);
    if (!mount.IsReadOnly()) TOVREL_SKIP_OR_FAIL("no read-only mount can be made here: " + mount.Why());
    ASSERT_FALSE(std::ofstream(target / "norvaneFxoCache.dat", std::ios::in | std::ios::out).is_open());
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
#else
TEST(EffectCacheReadOnlyFileTest, ACacheOnAReadOnlyMountServesEverySearch) {
  GTEST_SKIP() << "Windows has no read-only mount that a test can make";
}
#endif

// A writable file in a folder that refuses new files (a deployed cache
// folder): the journal beside the file cannot be created, so no save can
// be made. The cache serves the file read only from the save that meets
// it on (or from its open, when the open had to write), keeps new
// effects in memory, and writes nothing.

// Opens the folder's cache, caches two new effects and saves: the save
// cannot create the journal, and the cache goes on read only.
void ExpectServedWithoutJournal(const std::wstring& folder, bool background) {
  EffectCacheImpl cache(WStr(folder.c_str()), 2);
  ASSERT_TRUE(cache.IsEnabled());
  cache.SetBackgroundSaving(background);
  ExpectEveryEffect(cache);
  const auto first = Bytes(40);
  ASSERT_TRUE(cache.CacheCompiledEffect(WStr(L"new/first.fxo"), first.data(), first.size(), false));
  cache.ForceSaveToFile();
  EXPECT_TRUE(cache.IsEnabled());
  EXPECT_TRUE(cache.IsReadOnly());
  EXPECT_EQ(cache.ReadOnlyWhy(), Why::kNoJournal);
  ExpectEveryEffect(cache);
  ExpectFound(cache, L"new/first.fxo", first);
  // Effects cached later stay in memory too, and later saves change nothing.
  const auto second = Bytes(41);
  ASSERT_TRUE(cache.CacheCompiledEffect(WStr(L"new/second.fxo"), second.data(), second.size(), true));
  cache.ForceSaveToFile();
  EXPECT_TRUE(cache.IsEnabled());
  ExpectFound(cache, L"new/second.fxo", second);
  ExpectFound(cache, L"new/first.fxo", first);
  EXPECT_EQ(cache.GetNumberOfEffectsInMemory(), 2u);
}

class EffectCacheNoJournalTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    Fill(kFolder);
    before_ = files_.Memory().ReadAll(CacheFile());
    ASSERT_FALSE(before_.empty());
    files_.Memory().SetReadOnly(Journal());
  }
  void TearDown() override { FileFaults::Reset(); }
  static std::wstring CacheFile() { return std::wstring(CacheFileNames::CacheFilePathFor(WStr(kFolder)).data()); }
  static std::wstring Journal() { return CacheFile() + L"-journal"; }

  static constexpr const wchar_t* kFolder = L"deployed";
  Testing::InstalledFileSystem files_;
  std::vector<std::uint8_t> before_;
};

TEST_P(EffectCacheNoJournalTest, TheFirstSaveTurnsTheCacheReadOnlyAndNothingIsLostOrWritten) {
  ExpectServedWithoutJournal(kFolder, GetParam());
  EXPECT_EQ(files_.Memory().ReadAll(CacheFile()), before_);
  EXPECT_FALSE(files_.Memory().Exists(Journal().c_str()));
  // The file is as the last save that could be made left it.
  EffectCacheImpl again(WStr(kFolder), 2);
  ExpectEveryEffect(again);
  Tab<unsigned char> data;
  EXPECT_FALSE(again.SearchCachedEffects(WStr(L"new/first.fxo"), data));
}

TEST_P(EffectCacheNoJournalTest, AnOpenThatMustTrimServesTheFileReadOnlyUntrimmed) {
  {
    // A size limit below the file's asks the open for a trim, which needs
    // the journal.
    EffectCacheImpl cache(WStr(kFolder), 2, 16384);
    ASSERT_TRUE(cache.IsEnabled());
    cache.SetBackgroundSaving(GetParam());
    EXPECT_TRUE(cache.IsReadOnly());
    EXPECT_EQ(cache.ReadOnlyWhy(), Why::kNoJournal);
    ExpectEveryEffect(cache);
  }
  EXPECT_EQ(files_.Memory().ReadAll(CacheFile()), before_);
}

INSTANTIATE_TEST_SUITE_P(Saving, EffectCacheNoJournalTest, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? "InTheBackground" : "InTheForeground";
                         });

TEST(CacheWriteAccessTest, TellsWhyAFileCannotBeWritten) {
  Testing::InstalledFileSystem files;
  Fill(L"one");
  Fill(L"two");
  const std::wstring one(CacheFileNames::CacheFilePathFor(WStr(L"one")).data());
  const std::wstring two(CacheFileNames::CacheFilePathFor(WStr(L"two")).data());
  EXPECT_EQ(CacheWriteAccess::Check(one), Why::kWritable);
  EXPECT_EQ(CacheWriteAccess::Check(L"three/norvaneFxoCache.dat"), Why::kWritable);
  EXPECT_FALSE(files.Memory().Exists((one + L"-journal").c_str()));
  files.Memory().SetReadOnly(one + L"-journal");
  EXPECT_EQ(CacheWriteAccess::Check(one), Why::kNoJournal);
  EXPECT_FALSE(CacheWriteAccess::CanCreateJournal(one));
  files.Memory().SetReadOnly(two);
  EXPECT_EQ(CacheWriteAccess::Check(two), Why::kFileNotWritable);
  EXPECT_STREQ(CacheWriteAccess::Describe(Why::kNoJournal), "read only: cannot create the journal");
  EXPECT_STREQ(CacheWriteAccess::Describe(Why::kWritable), "read and write");
}

TEST(CacheWriteAccessTest, AJournalThatIsThereIsLeftAlone) {
  Testing::InstalledFileSystem files;
  const std::wstring journal = L"f/norvaneFxoCache.dat-journal";
  FileHandle* made = PlatformFile::Open(journal.c_str(), "wb");
  ASSERT_NE(made, nullptr);
  ASSERT_EQ(PlatformFile::Write("abc", 3, 1, made), 1u);
  PlatformFile::Close(made);
  EXPECT_TRUE(CacheWriteAccess::CanCreateJournal(L"f/norvaneFxoCache.dat"));
  EXPECT_EQ(files.Memory().ReadAll(journal), (std::vector<std::uint8_t>{'a', 'b', 'c'}));
}

TEST(CacheWriteAccessTest, AFailedProbeSaysNoJournal) {
  Testing::InstalledFileSystem files;
  Fill(L"f");
  FileFaults::FailNth(FileCall::kOpen, 1, EMFILE);
  EXPECT_FALSE(CacheWriteAccess::CanCreateJournal(L"f/norvaneFxoCache.dat"));
  FileFaults::Reset();
  EXPECT_TRUE(CacheWriteAccess::CanCreateJournal(L"f/norvaneFxoCache.dat"));
}

// The same through the system's own permissions, in argv[0]: the folder
// is made 0555 with its file 0644, by a process that the folder's mode
// stops. Exit status 0 when every check held.
int CheckAReadOnlyFolder(const std::filesystem::path& folder) {
  Fill(folder.wstring());
  const std::filesystem::path file = folder / "norvaneFxoCache.dat";
  const std::vector<std::uint8_t> before = Testing::TempDir::ReadAll(file.wstring());
  namespace fs = std::filesystem;
  fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read | fs::perms::others_read);
  fs::permissions(folder, fs::perms::owner_read | fs::perms::owner_exec | fs::perms::group_read |
                              fs::perms::group_exec | fs::perms::others_read | fs::perms::others_exec);
  EXPECT_FALSE(std::ofstream(folder / "probe").is_open()) << "the folder's mode does not stop this process";
  EXPECT_EQ(CacheWriteAccess::Check(file.wstring()), Why::kNoJournal);
  ExpectServedWithoutJournal(folder.wstring(), false);
  EXPECT_EQ(Testing::TempDir::ReadAll(file.wstring()), before);
  EXPECT_FALSE(fs::exists(folder / "norvaneFxoCache.dat-journal"));
  fs::permissions(folder, fs::perms::owner_write, fs::perm_options::add);
  return ::testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed() ? 1 : 0;
}

TOVREL_CHILD_ROLE(read_only_folder_as_user) {
  std::filesystem::path folder;
  std::string why;
  if (!Testing::UnprivilegedUser::BecomeFromArguments(argc, argv, &folder, &why)) {
    std::cerr << why << "\n";
    return 3;
  }
  return CheckAReadOnlyFolder(folder);
}

TEST(EffectCacheReadOnlyFileTest, AFolderThatRefusesNewFilesServesEverySearch) {
#ifdef _WIN32
  GTEST_SKIP() << "a Windows folder's read-only attribute does not stop new files in it";
#else
  Testing::TempDir dir;
  const std::filesystem::path folder = dir.Path() / "deployed";
  std::filesystem::create_directories(folder);
  if (!Testing::UnprivilegedUser::ThisProcessIsPrivileged()) {
    EXPECT_EQ(CheckAReadOnlyFolder(folder), 0);
    return;
  }
  // Root is not stopped by a folder's mode: a child that takes on an
  // unprivileged account, which owns the folder, runs the checks.
  std::string why;
  EXPECT_EQ(Testing::UnprivilegedUser::RunChildAs("read_only_folder_as_user", folder, &why), 0)
      << "the checks as an unprivileged user failed (see above) " << why;
#endif
}

}  // namespace
}  // namespace Tovrel
