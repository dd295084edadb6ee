// A package's journal holds what its saves need and no more, and an opener
// lets no journal grow the package past what the journal explains: a
// compaction of a small package whose file runs on, sparse, to 1 GiB
// journals only pages in use (and the saved file's last page) and is
// still rolled back exactly after a power cut; a journal naming a saved
// length its records do not explain is set aside and the package opens as
// it was.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <random>
#include <vector>

#include "package/PagedFilePackage.h"
#include "pagefile/FileIOException.h"
#include "pagefile/PageFileIO.h"
#include "pagefile/PageGeometry.h"
#include "pagefile/RollbackJournal.h"
#include "platform/FileFaults.h"
#include "platform/PlatformFile.h"
#include "support/InstalledFileSystem.h"
#include "support/PackageTesting.h"
#include "tovrel/FilePackage.h"

namespace Tovrel {
namespace {

using Testing::PackageTesting;
using Contents = std::map<std::uint64_t, std::vector<std::uint8_t>>;

constexpr const wchar_t* kPath = L"journal.dat";
constexpr std::uint64_t kGiB = std::uint64_t{1} << 30;

class PackageJournalTest : public ::testing::Test {
 protected:
  void TearDown() override { FileFaults::Reset(); }

  static RefPtr<PagedFilePackage> Open() {
    RefPtr<PagedFilePackage> package(new PagedFilePackage(PackageTesting::Config(kPath, 8)));
    return package->Load() ? package : RefPtr<PagedFilePackage>();
  }
  static RefPtr<IDataStreamSet> Set(const RefPtr<PagedFilePackage>& package) {
    return RefPtr<IDataStreamSet>(package.Get());
  }
  static std::wstring Journal() { return RollbackJournal::PathFor(kPath); }

  // A package of about 300 KiB with free pages and half-empty child
  // files all over it, saved.
  Contents MakeFragmented() {
    files_.Memory().Remove(kPath);
    std::mt19937 random(5);
    Contents contents;
    RefPtr<PagedFilePackage> package(new PagedFilePackage(PackageTesting::Config(kPath, 8)));
    package->Create();
    for (int i = 0; i < 40; ++i) {
      const std::uint64_t size = random() % 20000;
      const auto seed = static_cast<std::uint32_t>(random());
      contents[PackageTesting::CreateFilled(Set(package), size, seed)] = PackageTesting::Bytes(size, seed);
    }
    for (auto it = contents.begin(); it != contents.end();) {
      if (random() % 2 == 0) {
        EXPECT_TRUE(package->RemoveStream(it->first));
        it = contents.erase(it);
      } else {
        ++it;
      }
    }
    EXPECT_TRUE(package->Save());
    return contents;
  }

  static void ExtendTo(std::uint64_t length) {
    FileHandle* file = PlatformFile::Open(kPath, "r+b");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(PlatformFile::Truncate(file, length), 0);
    EXPECT_EQ(PlatformFile::Sync(file), 0);
    PlatformFile::Close(file);
  }
  static std::uint64_t LengthOf(const std::wstring& path) {
    FileHandle* file = PlatformFile::Open(path.c_str(), "rb");
    if (file == nullptr) return 0;
    const std::uint64_t length = PageFileIO::GetFileLength(file);
    PlatformFile::Close(file);
    return length;
  }
  static std::uint64_t UsedPages(const RefPtr<PagedFilePackage>& package) {
    const std::vector<bool> free = package->GetAllocator().GetFreePages();
    return static_cast<std::uint64_t>(std::count(free.begin(), free.end(), false));
  }
  static void ExpectContents(const RefPtr<PagedFilePackage>& package, const Contents& contents) {
    ASSERT_TRUE(package);
    ASSERT_EQ(package->GetNumberOfStreams(), contents.size());
    for (const auto& stream : contents) {
      if (stream.second.empty()) continue;
      EXPECT_EQ(PackageTesting::ReadAll(package->OpenStream(stream.first)), stream.second) << stream.first;
    }
  }

  Testing::InstalledFileSystem files_;
};

TEST_F(PackageJournalTest, ACompactionOfAFileRunningFarPastItsTableJournalsOnlyPagesInUseAndRollsBackExactly) {
  // The syncs of the whole compaction; the last is the package file's.
  MakeFragmented();
  ExtendTo(kGiB);
  FileFaults::StartCounting();
  {
    PagedFilePackage::CompactResult result;
    ASSERT_TRUE(Open()->Compact(&result));
    EXPECT_EQ(result.lengthBefore, kGiB);
    EXPECT_LT(result.lengthAfter, 400 * 1024u);
  }
  const std::uint64_t syncs = FileFaults::Calls(FileCall::kSync);
  FileFaults::Reset();

  // The same compaction, the power cut at the package file's sync: the
  // journal is whole, and holds at most the pages in use and one more.
  const Contents contents = MakeFragmented();
  ExtendTo(kGiB);
  RefPtr<PagedFilePackage> package = Open();
  const std::uint64_t used = UsedPages(package);
  const std::uint64_t table = package->GetAllocator().GetTableLength() * kPageSize;
  FileFaults::StartCounting();
  FileFaults::CutPowerAtNth(FileCall::kSync, syncs);
  EXPECT_THROW(package->Compact(nullptr), FileIOException);
  package.Reset();
  const std::uint64_t journalBytes = files_.Memory().ReadAll(Journal()).size();
  ::testing::Test::RecordProperty("journal_bytes", std::to_string(journalBytes));
  ::testing::Test::RecordProperty("used_pages", std::to_string(used));
  ::testing::Test::RecordProperty("table_bytes", std::to_string(table));
  EXPECT_GT(journalBytes, RollbackJournal::kHeaderSize);
  EXPECT_LE(journalBytes, RollbackJournal::kHeaderSize + (used + 1) * RollbackJournal::kRecordSize);
  FileFaults::Reset();
  files_.Memory().RestorePower(7);

  // The next open rolls the compaction back: the file as it was saved.
  package = Open();
  ExpectContents(package, contents);
  EXPECT_EQ(LengthOf(kPath), kGiB);
  EXPECT_FALSE(files_.Memory().Exists(Journal().c_str()));
  EXPECT_FALSE(files_.Memory().Exists(RollbackJournal::DamagedPathFor(kPath).c_str()));
  ASSERT_TRUE(package->Compact(nullptr));
  EXPECT_EQ(LengthOf(kPath), UsedPages(package) * kPageSize);
  ExpectContents(Open(), contents);
}

TEST_F(PackageJournalTest, AJournalWhoseSavedLengthItsRecordsDoNotExplainIsSetAsideAndThePackageOpensAsItWas) {
  const Contents contents = MakeFragmented();
  const std::vector<std::uint8_t> file = files_.Memory().ReadAll(kPath);
  const std::vector<std::uint8_t> zeros(kPageSize, 0);
  for (std::uint64_t savedLength : {std::uint64_t{1} << 40, static_cast<std::uint64_t>(file.size()) + 3 * kPageSize}) {
    {
      // A header anyone can write, and a record that would wipe page 10.
      RollbackJournal journal;
      journal.Attach(kPath);
      journal.Begin(savedLength);
      journal.Append(kFirstPageId, zeros.data());
      journal.SyncIfNeeded();
    }
    const std::vector<std::uint8_t> journal = files_.Memory().ReadAll(Journal());
    RefPtr<IDataStreamSet> opened = OpenFilePackage(PackageTesting::Config(kPath, 8));
    ASSERT_TRUE(opened) << savedLength;
    opened.Reset();
    EXPECT_EQ(files_.Memory().ReadAll(kPath), file) << savedLength;
    EXPECT_FALSE(files_.Memory().Exists(Journal().c_str()));
    EXPECT_EQ(files_.Memory().ReadAll(RollbackJournal::DamagedPathFor(kPath)), journal);
    ExpectContents(Open(), contents);
  }
}

}  // namespace
}  // namespace Tovrel
