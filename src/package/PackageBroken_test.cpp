// Changes that throw half-way: a removal whose shift of its child file
// fails at a file call, a creation whose pages cannot be had. The package
// is then broken: Save refuses with FileIOException and writes nothing,
// until Reload or Abandon, and the package's end abandons it, so that the
// file keeps its last completed save, byte for byte.
#include <gtest/gtest.h>

#include <cerrno>
#include <map>
#include <vector>

#include "package/PagedFilePackage.h"
#include "pagefile/FileIOException.h"
#include "pagefile/PageGeometry.h"
#include "pagefile/RollbackJournal.h"
#include "platform/FileFaults.h"
#include "support/InstalledFileSystem.h"
#include "support/PackageTesting.h"

namespace Tovrel {
namespace {

using Testing::PackageTesting;

constexpr const wchar_t* kPath = L"broken.dat";

class PackageBrokenTest : public ::testing::Test {
 protected:
  // Stream 0's 100-byte tail lies at the front of a child file that the
  // tails of streams 1 to 9 fill nearly to its end, so that removing
  // stream 0 moves 63,000 bytes through all eight of its pages; stream 10
  // has whole pages.
  void SetUp() override {
    RefPtr<PagedFilePackage> package = Open();
    package->Create();
    for (std::uint32_t i = 0; i < 11; ++i) {
      const std::uint64_t size = i == 0 ? 100 : i == 10 ? 3 * kPageSize : 7000;
      sizes_[PackageTesting::CreateFilled(Set(package), size, i + 1)] = size;
    }
    ASSERT_TRUE(package->Save());
    saved_ = files_.Memory().ReadAll(kPath);
  }
  void TearDown() override { FileFaults::Reset(); }

  // A cache of two pages: the shift writes pages back as it goes.
  static RefPtr<PagedFilePackage> Open() {
    return RefPtr<PagedFilePackage>(new PagedFilePackage(PackageTesting::Config(kPath, 2)));
  }
  static RefPtr<PagedFilePackage> Load() {
    RefPtr<PagedFilePackage> package = Open();
    return package->Load() ? package : RefPtr<PagedFilePackage>();
  }
  static RefPtr<IDataStreamSet> Set(const RefPtr<PagedFilePackage>& package) {
    return RefPtr<IDataStreamSet>(package.Get());
  }

  // File calls of the kind that removing stream 0 makes.
  std::uint64_t CallsOfRemoval(FileCall call) {
    RefPtr<PagedFilePackage> package = Load();
    FileFaults::StartCounting();
    EXPECT_TRUE(package->RemoveStream(0));
    const std::uint64_t calls = FileFaults::Calls(call);
    FileFaults::Reset();
    package->Abandon();
    EXPECT_EQ(files_.Memory().ReadAll(kPath), saved_);
    return calls;
  }

  void ExpectTheLastSave() {
    EXPECT_EQ(files_.Memory().ReadAll(kPath), saved_);
    EXPECT_FALSE(files_.Memory().Exists(RollbackJournal::PathFor(kPath).c_str()));
    RefPtr<PagedFilePackage> package = Load();
    ASSERT_TRUE(package);
    ASSERT_EQ(package->GetNumberOfStreams(), sizes_.size());
    for (const auto& stream : sizes_) {
      EXPECT_EQ(PackageTesting::ReadAll(package->OpenStream(stream.first)),
                PackageTesting::Bytes(stream.second, static_cast<std::uint32_t>(stream.first + 1)));
    }
  }

  // A package whose removal of stream 0 failed half-way at a call of the
  // kind: the first one, from the middle on, that fails once part of the
  // shift has reached the file.
  RefPtr<PagedFilePackage> BrokenHalfWay(FileCall call) {
    const std::uint64_t calls = CallsOfRemoval(call);
    EXPECT_GE(calls, 4u);
    for (std::uint64_t n = calls / 2; n < calls; ++n) {
      RefPtr<PagedFilePackage> package = Load();
      FileFaults::FailNth(call, n, EIO);
      EXPECT_THROW(package->RemoveStream(0), FileIOException);
      FileFaults::Reset();
      EXPECT_TRUE(package->IsBroken());
      if (files_.Memory().ReadAll(kPath) != saved_) return package;
      package->Abandon();
    }
    ADD_FAILURE() << "no failing call left part of the shift in the file";
    return Load();
  }

  Testing::InstalledFileSystem files_;
  std::map<std::uint64_t, std::uint64_t> sizes_;
  std::vector<std::uint8_t> saved_;
};

TEST_F(PackageBrokenTest, ARemovalWhoseShiftFailsHalfWayIsNeverSavedAndTheFileKeepsItsLastSave) {
  for (FileCall call : {FileCall::kRead, FileCall::kWrite}) {
    RefPtr<PagedFilePackage> package = BrokenHalfWay(call);
    const std::vector<std::uint8_t> file = files_.Memory().ReadAll(kPath);
    EXPECT_THROW(package->Save(), FileIOException);
    EXPECT_EQ(files_.Memory().ReadAll(kPath), file) << "a refused save writes nothing";
    EXPECT_THROW(package->Compact(nullptr), FileIOException);
    EXPECT_TRUE(package->IsBroken());
    package.Reset();  // abandoned, not saved
    ExpectTheLastSave();
  }
}

TEST_F(PackageBrokenTest, ReloadEndsTheBreakageWithTheLastSave) {
  RefPtr<PagedFilePackage> package = BrokenHalfWay(FileCall::kRead);
  ASSERT_TRUE(package->Reload());
  EXPECT_FALSE(package->IsBroken());
  EXPECT_EQ(files_.Memory().ReadAll(kPath), saved_);
  EXPECT_TRUE(package->RemoveStream(0));
  EXPECT_TRUE(package->Save());
  package.Reset();
  sizes_.erase(0);
  package = Load();
  ASSERT_TRUE(package);
  EXPECT_EQ(package->GetNumberOfStreams(), sizes_.size());
  EXPECT_EQ(PackageTesting::ReadAll(package->OpenStream(5)), PackageTesting::Bytes(7000, 6));
}

TEST_F(PackageBrokenTest, AbandonEndsTheBreakageWithTheLastSave) {
  RefPtr<PagedFilePackage> package = BrokenHalfWay(FileCall::kWrite);
  package->Abandon();
  EXPECT_FALSE(package->IsBroken());
  ExpectTheLastSave();
}

TEST_F(PackageBrokenTest, ACreationThatFailsAfterTakingPagesBreaksThePackage) {
  RefPtr<PagedFilePackage> package = Load();
  FileFaults::FailNth(FileCall::kWrite, 1, ENOSPC, true);
  EXPECT_THROW(package->CreateStream(40 * kPageSize), FileIOException);
  FileFaults::Reset();
  EXPECT_TRUE(package->IsBroken());
  EXPECT_EQ(package->GetNumberOfStreams(), sizes_.size());
  EXPECT_THROW(package->Save(), FileIOException);
  package.Reset();
  ExpectTheLastSave();
}

TEST_F(PackageBrokenTest, ARefusalBeforeAnyChangeLeavesThePackageUsable) {
  RefPtr<PagedFilePackage> package = Load();
  RefPtr<IDataStream> open = package->OpenStream(3);
  EXPECT_FALSE(package->RemoveStream(3));  // open
  EXPECT_EQ(package->CreateStream(std::uint64_t{1} << 31), IDataStreamSet::kNoStream);
  EXPECT_FALSE(package->IsBroken());
  EXPECT_FALSE(package->IsModified());
  open.Reset();
  EXPECT_TRUE(package->RemoveStream(3));
  EXPECT_TRUE(package->Save());
}

}  // namespace
}  // namespace Tovrel
