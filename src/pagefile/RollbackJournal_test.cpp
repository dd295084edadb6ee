#include "pagefile/RollbackJournal.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <vector>

#include "pagefile/FileIOException.h"
#include "pagefile/LittleEndian.h"
#include "pagefile/PageGeometry.h"
#include "platform/FileFaults.h"
#include "platform/PlatformFile.h"
#include "support/InstalledFileSystem.h"

namespace Tovrel {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes Page(std::uint8_t fill) { return Bytes(kPageSize, fill); }

Bytes Pages(std::initializer_list<std::uint8_t> fills) {
  Bytes bytes;
  for (std::uint8_t f : fills) {
    const Bytes page = Page(f);
    bytes.insert(bytes.end(), page.begin(), page.end());
  }
  return bytes;
}

class RollbackJournalTest : public ::testing::Test {
 protected:
  const std::wstring package_ = L"pkg.dat";
  const std::wstring journal_ = RollbackJournal::PathFor(L"pkg.dat");
  MemoryFileSystem& Fs() { return installed_.Memory(); }

  // A writer that journals pages 10 and 11 of a three-page file, changes
  // them and grows the file, then dies without finishing.
  void LeaveAJournalBehind() {
    Fs().WriteAll(package_, Pages({1, 2, 3}));
    RollbackJournal journal;
    journal.Attach(package_);
    journal.Begin(3 * kPageSize);
    journal.Append(10, Page(1).data());
    journal.Append(11, Page(2).data());
    journal.SyncIfNeeded();
    Fs().WriteAll(package_, Pages({9, 9, 3, 9}));
  }

  // A writer that journals the given pages of a three-page file with
  // their images (of fill 9) and the saved length, then dies.
  void LeaveAJournalNaming(std::uint64_t savedLength, std::initializer_list<std::uint64_t> pages) {
    Fs().WriteAll(package_, Pages({1, 2, 3}));
    RollbackJournal journal;
    journal.Attach(package_);
    journal.Begin(savedLength);
    for (std::uint64_t page : pages) journal.Append(page, Page(9).data());
    journal.SyncIfNeeded();
  }

  void Recover() {
    FileHandle* package = PlatformFile::Open(package_.c_str(), "r+b");
    ASSERT_NE(package, nullptr);
    try {
      RollbackJournal::Recover(package_, package);
    } catch (...) {
      PlatformFile::Close(package);
      throw;
    }
    PlatformFile::Close(package);
  }

  Testing::InstalledFileSystem installed_;
};

TEST_F(RollbackJournalTest, ADeadWritersJournalPutsTheFileBackAsItWasSaved) {
  LeaveAJournalBehind();
  ASSERT_TRUE(Fs().Exists(journal_.c_str()));
  Recover();
  EXPECT_EQ(Fs().ReadAll(package_), Pages({1, 2, 3}));
  EXPECT_FALSE(Fs().Exists(journal_.c_str()));
  EXPECT_EQ(Fs().UnsyncedChangeCount(package_), 0u);  // the restored file is on stable storage
}

TEST_F(RollbackJournalTest, AFinishedJournalIsGoneAndRollsNothingBack) {
  Fs().WriteAll(package_, Pages({1, 2}));
  RollbackJournal journal;
  journal.Attach(package_);
  journal.Begin(2 * kPageSize);
  EXPECT_TRUE(journal.IsActive());
  journal.Append(10, Page(1).data());
  EXPECT_TRUE(journal.IsJournaled(10));
  EXPECT_FALSE(journal.IsJournaled(11));
  EXPECT_TRUE(journal.HasUnsyncedRecords());
  journal.SyncIfNeeded();
  EXPECT_FALSE(journal.HasUnsyncedRecords());
  journal.Finish();
  EXPECT_FALSE(journal.IsActive());
  EXPECT_FALSE(Fs().Exists(journal_.c_str()));
}

TEST_F(RollbackJournalTest, AJournalWithoutAWholeHeaderIsOnlyDeleted) {
  Fs().WriteAll(package_, Pages({5, 6}));
  Fs().WriteAll(journal_, Bytes(30, 0x54));
  Recover();
  EXPECT_EQ(Fs().ReadAll(package_), Pages({5, 6}));
  EXPECT_FALSE(Fs().Exists(journal_.c_str()));
}

TEST_F(RollbackJournalTest, RecordsAreReadUpToTheFirstDamagedOne) {
  LeaveAJournalBehind();
  Bytes bytes = Fs().ReadAll(journal_);
  ASSERT_EQ(bytes.size(), RollbackJournal::kHeaderSize + 2 * RollbackJournal::kRecordSize);
  bytes[RollbackJournal::kHeaderSize + 100] ^= 0x01;  // the first record's image
  Fs().WriteAll(journal_, bytes);
  Recover();
  // Page 10 was not restored; the file was still cut to its saved length.
  EXPECT_EQ(Fs().ReadAll(package_), Pages({9, 9, 3}));
}

TEST_F(RollbackJournalTest, RecordsOfAnEarlierJournalAreNotTakenForThisOnes) {
  LeaveAJournalBehind();
  const Bytes old = Fs().ReadAll(journal_);
  Recover();
  {
    RollbackJournal journal;
    journal.Attach(package_);
    journal.Begin(3 * kPageSize);
  }
  Bytes mixed = Fs().ReadAll(journal_);
  ASSERT_EQ(mixed.size(), RollbackJournal::kHeaderSize);
  mixed.insert(mixed.end(), old.begin() + RollbackJournal::kHeaderSize, old.end());
  Fs().WriteAll(journal_, mixed);
  Fs().WriteAll(package_, Pages({7, 7, 7}));
  Recover();
  EXPECT_EQ(Fs().ReadAll(package_), Pages({7, 7, 7}));
}

TEST_F(RollbackJournalTest, ALivingWritersJournalIsLeftAloneAndTheOpenFails) {
  Fs().WriteAll(package_, Pages({1, 2}));
  RollbackJournal living;
  living.Attach(package_);
  living.Begin(2 * kPageSize);
  living.Append(10, Page(1).data());
  living.SyncIfNeeded();
  Fs().WriteAll(package_, Pages({4, 2}));
  const Bytes journalBytes = Fs().ReadAll(journal_);
  try {
    Recover();
    FAIL() << "rolled back a living writer's journal";
  } catch (const FileIOException& e) {
    EXPECT_EQ(e.errorCode, EBUSY);
  }
  EXPECT_EQ(Fs().ReadAll(package_), Pages({4, 2}));
  EXPECT_EQ(Fs().ReadAll(journal_), journalBytes);
  const RollbackJournal::Found found = RollbackJournal::Inspect(package_);
  EXPECT_TRUE(found.present);
  EXPECT_TRUE(found.busy);
  EXPECT_TRUE(found.complete);
  EXPECT_EQ(found.savedLength, 2 * kPageSize);
  EXPECT_EQ(found.pageIds, (std::vector<std::uint64_t>{10}));
}

TEST_F(RollbackJournalTest, InspectTellsWhatARollbackWouldDoWithoutDoingIt) {
  EXPECT_FALSE(RollbackJournal::Inspect(package_).present);
  LeaveAJournalBehind();
  const Bytes before = Fs().ReadAll(package_);
  const RollbackJournal::Found found = RollbackJournal::Inspect(package_);
  EXPECT_TRUE(found.present);
  EXPECT_FALSE(found.busy);
  EXPECT_TRUE(found.complete);
  EXPECT_EQ(found.savedLength, 3 * kPageSize);
  EXPECT_EQ(found.pageIds, (std::vector<std::uint64_t>{10, 11}));
  EXPECT_EQ(Fs().ReadAll(package_), before);
  EXPECT_TRUE(Fs().Exists(journal_.c_str()));
}

TEST_F(RollbackJournalTest, AFailedRollbackLeavesTheJournalForTheNextOpen) {
  LeaveAJournalBehind();
  FileFaults::FailNth(FileCall::kSync, 1, EIO);
  EXPECT_THROW(Recover(), FileIOException);
  FileFaults::Reset();
  EXPECT_TRUE(Fs().Exists(journal_.c_str()));
  Recover();
  EXPECT_EQ(Fs().ReadAll(package_), Pages({1, 2, 3}));
}

TEST_F(RollbackJournalTest, ARecordAfterAFailedAppendTakesThePlaceOfTheTornOne) {
  Fs().WriteAll(package_, Pages({1, 2, 3}));
  {
    RollbackJournal journal;
    journal.Attach(package_);
    journal.Begin(3 * kPageSize);
    journal.Append(10, Page(1).data());
    FileFaults::FailNth(FileCall::kWrite, 1, ENOSPC);
    EXPECT_THROW(journal.Append(11, Page(2).data()), FileIOException);
    FileFaults::Reset();
    journal.Append(12, Page(3).data());
    journal.SyncIfNeeded();
  }
  EXPECT_EQ(Fs().ReadAll(journal_).size(), RollbackJournal::kHeaderSize + 2 * RollbackJournal::kRecordSize);
  Fs().WriteAll(package_, Pages({9, 9, 9}));
  Recover();
  EXPECT_EQ(Fs().ReadAll(package_), Pages({1, 9, 3}));
}

TEST_F(RollbackJournalTest, AJournalNamingALengthNoPackageCanHaveIsSetAsideNotApplied) {
  LeaveAJournalNaming(std::uint64_t{1} << 40, {10});
  const Bytes journal = Fs().ReadAll(journal_);
  const RollbackJournal::Found found = RollbackJournal::Inspect(package_);
  EXPECT_TRUE(found.damaged);
  EXPECT_FALSE(found.complete);
  Recover();
  EXPECT_EQ(Fs().ReadAll(package_), Pages({1, 2, 3}));
  EXPECT_FALSE(Fs().Exists(journal_.c_str()));
  EXPECT_EQ(Fs().ReadAll(RollbackJournal::DamagedPathFor(package_)), journal);
}

TEST_F(RollbackJournalTest, AJournalThatWouldGrowTheFilePastItsRecordsIsSetAside) {
  // Six pages saved, the file three long, records up to page 11 only.
  LeaveAJournalNaming(6 * kPageSize, {11});
  EXPECT_TRUE(RollbackJournal::Inspect(package_).damaged);
  Recover();
  EXPECT_EQ(Fs().ReadAll(package_), Pages({1, 2, 3}));
  EXPECT_TRUE(Fs().Exists(RollbackJournal::DamagedPathFor(package_).c_str()));
  EXPECT_FALSE(Fs().Exists(journal_.c_str()));
}

TEST_F(RollbackJournalTest, AJournalWhoseRecordsReachItsSavedLengthGrowsTheFileBack) {
  // A cut file: five pages saved, the last journaled, the file three long.
  LeaveAJournalNaming(5 * kPageSize, {11, 14});
  const RollbackJournal::Found found = RollbackJournal::Inspect(package_);
  EXPECT_TRUE(found.complete);
  EXPECT_FALSE(found.damaged);
  Recover();
  EXPECT_EQ(Fs().ReadAll(package_), Pages({1, 9, 3, 0, 9}));
  EXPECT_FALSE(Fs().Exists(RollbackJournal::DamagedPathFor(package_).c_str()));
}

TEST_F(RollbackJournalTest, ADamagedJournalSetAsideReplacesAnOlderOne) {
  Fs().WriteAll(RollbackJournal::DamagedPathFor(package_), Bytes(100, 0x33));
  LeaveAJournalNaming(7 * kPageSize, {});
  const Bytes journal = Fs().ReadAll(journal_);
  Recover();
  EXPECT_EQ(Fs().ReadAll(RollbackJournal::DamagedPathFor(package_)), journal);
  EXPECT_EQ(Fs().ReadAll(package_), Pages({1, 2, 3}));
}

TEST_F(RollbackJournalTest, AJournalThatCannotBeSetAsideStaysAndTheOpenFails) {
  LeaveAJournalNaming(std::uint64_t{1} << 40, {10});
  FileFaults::FailNth(FileCall::kRename, 1, EACCES, true);
  EXPECT_THROW(Recover(), FileIOException);
  FileFaults::Reset();
  EXPECT_TRUE(Fs().Exists(journal_.c_str()));
  EXPECT_EQ(Fs().ReadAll(package_), Pages({1, 2, 3}));
}

TEST_F(RollbackJournalTest, TheHeaderRecordsTheSavedLengthAndItsOwnCheck) {
  Fs().WriteAll(package_, Pages({1}));
  RollbackJournal journal;
  journal.Attach(package_);
  journal.Begin(123456);
  const Bytes header = Fs().ReadAll(journal_);
  ASSERT_EQ(header.size(), RollbackJournal::kHeaderSize);
  EXPECT_EQ(LittleEndian::Load64(header.data()), RollbackJournal::kMagic);
  EXPECT_EQ(LittleEndian::Load32(header.data() + 8), RollbackJournal::kVersion);
  EXPECT_EQ(LittleEndian::Load32(header.data() + 12), kPageSize);
  EXPECT_EQ(LittleEndian::Load64(header.data() + 24), 123456u);
  journal.Finish();
}

}  // namespace
}  // namespace Tovrel
