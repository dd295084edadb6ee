// Compaction: a package file with free pages in random places shrinks to
// the pages it uses, every stream keeps its identifier and bytes, and a
// compaction that fails at any file call leaves the file as it was and the
// package usable.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <random>
#include <vector>

#include "package/PagedFilePackage.h"
#include "pagefile/FileIOException.h"
#include "pagefile/PageGeometry.h"
#include "platform/FileFaults.h"
#include "support/InstalledFileSystem.h"
#include "support/PackageTesting.h"

namespace Tovrel {
namespace {

using Testing::PackageTesting;
using Contents = std::map<std::uint64_t, std::vector<std::uint8_t>>;

constexpr const wchar_t* kPath = L"compact.dat";

class PackageCompactionTest : public ::testing::Test {
 protected:
  void TearDown() override { FileFaults::Reset(); }

  RefPtr<PagedFilePackage> Open(std::uint64_t cachePages = 8) {
    RefPtr<PagedFilePackage> package(new PagedFilePackage(PackageTesting::Config(kPath, cachePages)));
    return package->Load() ? package : RefPtr<PagedFilePackage>();
  }
  static RefPtr<IDataStreamSet> Set(const RefPtr<PagedFilePackage>& package) {
    return RefPtr<IDataStreamSet>(package.Get());
  }

  // Makes `streams` streams of random sizes (whole pages, tails, both,
  // none), removes about `removedPercent` of them at random and saves:
  // free pages and half-empty child files all over the file.
  Contents MakeFragmented(std::uint32_t seed, int streams, int maxSize, int removedPercent) {
    std::mt19937 random(seed);
    Contents contents;
    RefPtr<PagedFilePackage> package(new PagedFilePackage(PackageTesting::Config(kPath, 8)));
    package->Create();
    for (int i = 0; i < streams; ++i) {
      const std::uint64_t size = random() % static_cast<std::uint32_t>(maxSize);
      const std::uint32_t bytesSeed = static_cast<std::uint32_t>(random());
      contents[PackageTesting::CreateFilled(Set(package), size, bytesSeed)] = PackageTesting::Bytes(size, bytesSeed);
    }
    for (auto it = contents.begin(); it != contents.end();) {
      if (static_cast<int>(random() % 100) < removedPercent) {
        EXPECT_TRUE(package->RemoveStream(it->first));
        it = contents.erase(it);
      } else {
        ++it;
      }
    }
    package->SetUserDataSize(300);
    package->GetUserData()[7] = 42;
    EXPECT_TRUE(package->Save());
    return contents;
  }

  static void ExpectContents(const RefPtr<PagedFilePackage>& package, const Contents& contents) {
    ASSERT_TRUE(package);
    ASSERT_EQ(package->GetNumberOfStreams(), contents.size());
    for (const auto& stream : contents) {
      ASSERT_TRUE(package->GetStreamTable().Find(stream.first) != nullptr) << stream.first;
      if (stream.second.empty()) continue;
      EXPECT_EQ(PackageTesting::ReadAll(package->OpenStream(stream.first)), stream.second) << stream.first;
    }
    ASSERT_EQ(package->GetUserDataSize(), 300u);
    EXPECT_EQ(package->GetUserData()[7], 42);
  }

  // Pages the package uses: every page of its allocation table in use.
  static std::uint64_t UsedPages(const RefPtr<PagedFilePackage>& package) {
    const std::vector<bool> free = package->GetAllocator().GetFreePages();
    return static_cast<std::uint64_t>(std::count(free.begin(), free.end(), false));
  }

  Testing::InstalledFileSystem files_;
};

TEST_F(PackageCompactionTest, AFileWithFreePagesInRandomPlacesShrinksToItsUsedPagesWithEveryStreamExact) {
  for (std::uint32_t seed = 1; seed <= 6; ++seed) {
    const Contents contents = MakeFragmented(seed, 150, 40000, 60);
    const std::uint64_t lengthBefore = files_.Memory().ReadAll(kPath).size();
    PagedFilePackage::CompactResult result;
    {
      RefPtr<PagedFilePackage> package = Open();
      ASSERT_TRUE(package);
      ASSERT_GT(UsedPages(package) * kPageSize, 0u);
      ASSERT_LT(UsedPages(package), package->GetAllocator().GetTableLength()) << "seed " << seed;
      ASSERT_TRUE(package->Compact(&result));
      EXPECT_EQ(result.lengthBefore, lengthBefore);
      EXPECT_LT(result.lengthAfter, result.lengthBefore) << "seed " << seed;
      EXPECT_GT(result.pagesMoved, 0u) << "seed " << seed;
      // No free page is left: the file is its used pages, no more.
      EXPECT_EQ(UsedPages(package), package->GetAllocator().GetTableLength());
      EXPECT_EQ(result.lengthAfter, UsedPages(package) * kPageSize);
      EXPECT_FALSE(package->IsModified());
      ExpectContents(package, contents);
    }
    EXPECT_EQ(files_.Memory().ReadAll(kPath).size(), result.lengthAfter);
    EXPECT_FALSE(files_.Memory().Exists(L"compact.dat-journal"));
    EXPECT_EQ(files_.Memory().UnsyncedChangeCount(kPath), 0u);
    ExpectContents(Open(), contents);
  }
}

TEST_F(PackageCompactionTest, AHeadChainOfSeveralPagesAndManyChildFilesCompact) {
  // 1,500 streams of tails only: a stream table of 48 KB, dozens of child
  // files, and most of them emptied by the removals.
  const Contents contents = MakeFragmented(11, 1500, 3000, 80);
  RefPtr<PagedFilePackage> package = Open();
  ASSERT_TRUE(package);
  ASSERT_GT(package->GetHeadSeeker()->pageCount, 1u);
  PagedFilePackage::CompactResult result;
  ASSERT_TRUE(package->Compact(&result));
  EXPECT_LT(result.lengthAfter, result.lengthBefore);
  EXPECT_EQ(result.lengthAfter, UsedPages(package) * kPageSize);
  package.Reset();
  ExpectContents(Open(), contents);
}

TEST_F(PackageCompactionTest, ACompactedPackageKeepsWorking) {
  Contents contents = MakeFragmented(21, 100, 30000, 50);
  {
    RefPtr<PagedFilePackage> package = Open();
    ASSERT_TRUE(package->Compact(nullptr));
    for (std::uint32_t i = 0; i < 20; ++i) {
      const std::uint64_t size = 1000 + i * 2345;
      contents[PackageTesting::CreateFilled(Set(package), size, 900 + i)] = PackageTesting::Bytes(size, 900 + i);
    }
    const std::uint64_t victim = contents.begin()->first;
    ASSERT_TRUE(package->RemoveStream(victim));
    contents.erase(victim);
    ASSERT_TRUE(package->Save());
    ExpectContents(package, contents);
  }
  ExpectContents(Open(), contents);
}

TEST_F(PackageCompactionTest, AFileWithoutFreePagesIsLeftUntouched) {
  {
    RefPtr<PagedFilePackage> package(new PagedFilePackage(PackageTesting::Config(kPath, 8)));
    package->Create();
    for (std::uint32_t i = 0; i < 5; ++i) PackageTesting::CreateFilled(Set(package), 8192 * (i + 1), i);
    ASSERT_TRUE(package->Save());
  }
  const std::vector<std::uint8_t> before = files_.Memory().ReadAll(kPath);
  RefPtr<PagedFilePackage> package = Open();
  PagedFilePackage::CompactResult result;
  ASSERT_TRUE(package->Compact(&result));
  EXPECT_EQ(result.lengthBefore, before.size());
  EXPECT_EQ(result.lengthAfter, before.size());
  EXPECT_EQ(result.pagesMoved, 0u);
  package.Reset();
  EXPECT_EQ(files_.Memory().ReadAll(kPath), before);
}

TEST_F(PackageCompactionTest, UnsavedChangesAreSavedFirstAndCompactedWithTheRest) {
  Contents contents = MakeFragmented(31, 60, 30000, 0);
  {
    RefPtr<PagedFilePackage> package = Open();
    for (auto it = contents.begin(); it != contents.end();) {
      if (it->first % 3 == 0) {
        ASSERT_TRUE(package->RemoveStream(it->first));
        it = contents.erase(it);
      } else {
        ++it;
      }
    }
    PagedFilePackage::CompactResult result;
    ASSERT_TRUE(package->Compact(&result));
    EXPECT_LT(result.lengthAfter, result.lengthBefore);
  }
  ExpectContents(Open(), contents);
}

TEST_F(PackageCompactionTest, IsRefusedWithAStreamOpenAndOnAFileOpenedForReading) {
  const Contents contents = MakeFragmented(41, 40, 30000, 50);
  const std::vector<std::uint8_t> before = files_.Memory().ReadAll(kPath);
  {
    RefPtr<PagedFilePackage> package = Open();
    RefPtr<IDataStream> open = package->OpenStream(contents.rbegin()->first);
    EXPECT_FALSE(package->Compact(nullptr));
  }
  {
    RefPtr<PagedFilePackage> package(new PagedFilePackage(PackageTesting::Config(kPath, 8)));
    ASSERT_TRUE(package->LoadReadOnly());
    EXPECT_FALSE(package->Compact(nullptr));
  }
  EXPECT_EQ(files_.Memory().ReadAll(kPath), before);
}

TEST_F(PackageCompactionTest, EveryFileCallOfACompactionFailingInTurnLeavesTheOldFileAndAUsablePackage) {
  const Contents contents = MakeFragmented(51, 80, 30000, 60);
  const std::vector<std::uint8_t> original = files_.Memory().ReadAll(kPath);
  // Pages that were free hold nothing of the saved state: a failed
  // compaction may leave copies in them.
  const std::vector<bool> freeBefore = Open()->GetAllocator().GetFreePages();
  const auto sameSavedState = [&](const std::vector<std::uint8_t>& now) {
    if (now.size() != original.size()) return false;
    for (std::size_t i = 0; i < freeBefore.size(); ++i) {
      const auto page = static_cast<std::ptrdiff_t>(i * kPageSize);
      if (!freeBefore[i] && !std::equal(now.begin() + page, now.begin() + page + kPageSize, original.begin() + page)) {
        return false;
      }
    }
    return true;
  };
  std::uint64_t calls = 0;
  std::uint64_t compactedLength = 0;
  {
    RefPtr<PagedFilePackage> package = Open();
    FileFaults::StartCounting();
    PagedFilePackage::CompactResult result;
    ASSERT_TRUE(package->Compact(&result));
    calls = FileFaults::Calls(FileCall::kAny);
    compactedLength = result.lengthAfter;
    FileFaults::Reset();
  }
  ASSERT_GT(calls, 10u);
  for (std::uint64_t n = 1; n <= calls; ++n) {
    files_.Memory().WriteAll(kPath, original);
    RefPtr<PagedFilePackage> package = Open();
    ASSERT_TRUE(package);
    FileFaults::FailNth(FileCall::kAny, n, EIO);
    bool compacted = false;
    try {
      compacted = package->Compact(nullptr);
    } catch (const FileIOException&) {
      // Reported; the package went back to the file's last save.
    }
    FileFaults::Reset();
    // Compacted, or (failed before its commit point) the file as it was;
    // a failure after the commit point (the reopening) leaves it compacted.
    const std::vector<std::uint8_t> now = files_.Memory().ReadAll(kPath);
    if (compacted) {
      EXPECT_EQ(now.size(), compactedLength) << "call " << n;
    } else if (!files_.Memory().Exists(L"compact.dat-journal")) {
      EXPECT_TRUE(sameSavedState(now) || now.size() == compactedLength) << "call " << n;
    }
    if (package->GetPageCache() != nullptr) ExpectContents(package, contents);
    package.Reset();
    ExpectContents(Open(), contents);
  }
}

}  // namespace
}  // namespace Tovrel
