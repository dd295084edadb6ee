// A cache object never writes from a view of the file that is not the
// file's: another process's save is read first, a reload that fails is
// tried again, and a save whose view cannot be brought up to date writes
// nothing and keeps its effects pending.
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "effectcache/ChangeMark.h"
#include "effectcache/EffectCacheImpl.h"
#include "platform/FileFaults.h"
#include "support/AllocationFaults.h"
#include "support/EffectTesting.h"
#include "support/TempDir.h"
#include "tovrel/FilePackage.h"

namespace Tovrel {
namespace {

using Testing::AllocationFaults;
using Testing::EffectTesting;
using Testing::TempDir;

std::vector<unsigned char> BytesOf(const std::string& name) { return EffectTesting::BytesNamedBy(name); }

class EffectCacheStaleViewTest : public ::testing::Test {
 protected:
  void TearDown() override { FileFaults::Reset(); }

  std::unique_ptr<EffectCacheImpl> Open(const std::wstring& folder) {
    return std::unique_ptr<EffectCacheImpl>(new EffectCacheImpl(WStr(folder.c_str()), 2));
  }
  std::unique_ptr<EffectCacheImpl> Open() { return Open(folder_); }

  static void Cache(EffectCacheImpl& cache, const std::string& name) {
    const std::vector<unsigned char> bytes = BytesOf(name);
    const std::wstring wide(name.begin(), name.end());
    ASSERT_TRUE(cache.CacheCompiledEffect(WStr(wide.c_str()), bytes.data(), bytes.size(), false)) << name;
  }
  static void CacheAndSave(EffectCacheImpl& cache, const std::string& name) {
    Cache(cache, name);
    cache.ForceSaveToFile();
    ASSERT_TRUE(cache.IsEnabled());
    ASSERT_EQ(cache.GetNumberOfEffectsInMemory(), 0u) << name << " was not saved";
  }
  static bool Finds(EffectCacheImpl& cache, const std::string& name) {
    Tab<unsigned char> data;
    const std::wstring wide(name.begin(), name.end());
    return cache.SearchCachedEffects(WStr(wide.c_str()), data) && EffectTesting::ToVector(data) == BytesOf(name);
  }
  // What a process that opens the file afresh finds, byte for byte.
  void ExpectStored(const std::vector<std::string>& names) {
    auto reader = Open();
    ASSERT_TRUE(reader->IsEnabled());
    for (const std::string& name : names) EXPECT_TRUE(Finds(*reader, name)) << name;
  }
  std::wstring CacheFile() const { return dir_.File("norvaneFxoCache.dat"); }

  TempDir dir_;
  std::wstring folder_ = dir_.Path().wstring();
};

TEST_F(EffectCacheStaleViewTest, AReloadThatCannotOpenTheFileDoesNotTurnTheNextSaveIntoALostUpdate) {
  auto a = Open();
  auto b = Open();
  CacheAndSave(*a, "a1");
  CacheAndSave(*b, "b1");
  // A's search learns of B's save, but its reload cannot open the file:
  // no descriptor is left in the process.
  FileFaults::FailNth(FileCall::kOpen, 1, EMFILE, true);
  EXPECT_FALSE(Finds(*a, "b1"));
  EXPECT_FALSE(Finds(*a, "a1")) << "a view that could not be brought up to date was searched";
  FileFaults::Reset();
  CacheAndSave(*a, "a2");
  ExpectStored({"a1", "b1", "a2"});
}

TEST_F(EffectCacheStaleViewTest, ASearchAfterAFailedReloadTriesItAgain) {
  auto a = Open();
  auto b = Open();
  CacheAndSave(*b, "b1");
  FileFaults::FailNth(FileCall::kOpen, 1, EMFILE, true);
  EXPECT_FALSE(Finds(*a, "b1"));
  EXPECT_FALSE(Finds(*a, "b1"));
  FileFaults::Reset();
  EXPECT_TRUE(Finds(*a, "b1"));
  EXPECT_EQ(a->GetNumberOfEffectsInFile(), 1u);
}

TEST_F(EffectCacheStaleViewTest, ASaveWhoseViewCannotBeBroughtUpToDateWritesNothingAndKeepsItsEffects) {
  auto a = Open();
  auto b = Open();
  CacheAndSave(*b, "b1");
  Cache(*a, "a1");
  const std::vector<std::uint8_t> before = TempDir::ReadAll(CacheFile());
  FileFaults::FailNth(FileCall::kOpen, 1, EMFILE, true);
  a->ForceSaveToFile();
  FileFaults::Reset();
  EXPECT_EQ(TempDir::ReadAll(CacheFile()), before);
  EXPECT_TRUE(a->IsEnabled());
  EXPECT_EQ(a->GetNumberOfEffectsInMemory(), 1u);
  EXPECT_TRUE(Finds(*a, "a1"));  // served from memory meanwhile
  a->ForceSaveToFile();
  EXPECT_EQ(a->GetNumberOfEffectsInMemory(), 0u);
  ExpectStored({"b1", "a1"});
}

TEST_F(EffectCacheStaleViewTest, AnAllocationFailureAnywhereInAReloadLosesNoStoredEffect) {
  std::vector<std::string> stored;
  {
    auto first = Open();
    for (int i = 0; i < 21; ++i) {
      stored.push_back("base" + std::to_string(i));
      Cache(*first, stored.back());
    }
    first->ForceSaveToFile();
    ASSERT_EQ(first->GetNumberOfEffectsInFile(), 21u);
  }
  // How many allocations a search that reloads makes.
  std::uint64_t allocations = 0;
  {
    auto a = Open();
    auto b = Open();
    CacheAndSave(*b, "counted");
    stored.push_back("counted");
    Testing::AllocationFaultScope scope;
    AllocationFaults::StartCounting();
    EXPECT_TRUE(Finds(*a, "counted"));
    allocations = AllocationFaults::Count();
  }
  ASSERT_GT(allocations, 10u);
  int failures = 0;  // allocations that did fail
  for (std::uint64_t k = 1; k <= allocations; ++k) {
    auto a = Open();
    auto b = Open();
    const std::string theirs = "b" + std::to_string(k);
    CacheAndSave(*b, theirs);
    stored.push_back(theirs);
    {
      // The failure may leave the search (as the host's allocations do) or
      // make its reload fail (a miss, the reload tried again later).
      Testing::AllocationFaultScope scope;
      AllocationFaults::FailNth(k);
      try {
        Finds(*a, theirs);
      } catch (const std::bad_alloc&) {
      }
      failures += AllocationFaults::Fired() ? 1 : 0;
    }
    const std::string mine = "a" + std::to_string(k);
    Cache(*a, mine);
    a->ForceSaveToFile();
    if (a->IsEnabled() && a->GetNumberOfEffectsInMemory() == 0) stored.push_back(mine);
  }
  EXPECT_GT(failures, static_cast<int>(allocations / 2));
  ExpectStored(stored);
}

TEST_F(EffectCacheStaleViewTest, TheFilesChangeMarkCatchesASaveTheSharedStampNeverTold) {
  // Two paths to one file make two sets of shared objects: the stamp tells
  // neither object of the other's saves. The file's change mark does.
  const std::wstring otherPath = folder_ + L"/.";
  auto a = Open();
  auto b = Open(otherPath);
  ASSERT_NE(std::wstring(a->GetCacheFileFullPath().data()), std::wstring(b->GetCacheFileFullPath().data()));
  CacheAndSave(*a, "x");
  CacheAndSave(*b, "y");
  CacheAndSave(*a, "z");
  CacheAndSave(*b, "w");
  ExpectStored({"x", "y", "z", "w"});
}

TEST_F(EffectCacheStaleViewTest, EverySaveLeavesANewChangeMarkLastInTheUserData) {
  auto cache = Open();
  ChangeMark previous;
  for (int round = 0; round < 3; ++round) {
    CacheAndSave(*cache, "m" + std::to_string(round));
    const std::wstring file = CacheFile();
    const PagedFilePackageConfig config{file.c_str(), 8, EffectCacheImpl::kStreamLimit};
    RefPtr<IDataStreamSet> package = OpenFilePackage(config);
    ASSERT_TRUE(package);
    const IDataStreamSet& view = *package;
    const ChangeMark mark = ChangeMark::Read(view);
    ASSERT_TRUE(mark.present);
    ASSERT_GE(view.GetUserDataSize(), ChangeMark::kBlockSize);
    EXPECT_TRUE(mark.Proves(ChangeMark::FromBlock(view.GetUserData() + view.GetUserDataSize() - ChangeMark::kBlockSize)));
    EXPECT_FALSE(mark.Proves(previous));
    if (previous.present) {
      EXPECT_EQ(mark.generation, previous.generation);
      EXPECT_EQ(mark.changes, previous.changes + 1);
    }
    previous = mark;
  }
}

}  // namespace
}  // namespace Tovrel
