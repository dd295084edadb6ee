// Packages on failing devices and damaged package files: every failure is
// a refusal (an empty result, false, an exception of the library's family,
// a short count), never a crash, and the last save stays readable.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "pagefile/FileIOException.h"
#include "pagefile/LittleEndian.h"
#include "platform/FileFaults.h"
#include "support/PackageLayout.h"
#include "support/PackageTesting.h"
#include "support/TempDir.h"
#include "tovrel/FilePackage.h"

namespace Tovrel {
namespace {

using Testing::PackageTesting;
using Testing::TempDir;

// Opens and reads every stream (at most `perStream` bytes of each); Read
// and Seek never throw, OpenStream may refuse a damaged stream.
void ReadEverything(const RefPtr<IDataStreamSet>& package, std::uint64_t perStream = 1 << 20) {
  std::vector<std::uint8_t> buffer(64 * 1024);
  for (std::uint64_t i = 0; i < package->GetNumberOfStreams(); ++i) {
    RefPtr<IDataStream> stream;
    try {
      stream = package->OpenStream(package->GetStreamIdentifier(i));
    } catch (const std::exception&) {
      continue;
    }
    if (!stream) continue;
    std::uint64_t done = 0;
    while (done < perStream) {
      const std::uint64_t n = stream->Read(buffer.data(), buffer.size());
      if (n == 0) break;
      done += n;
    }
    EXPECT_TRUE(stream->Seek(2, 0));
    EXPECT_EQ(stream->Read(buffer.data(), 1), 0u);
  }
}

class PackageFaultsTest : public ::testing::Test {
 protected:
  void TearDown() override { FileFaults::Reset(); }

  RefPtr<IDataStreamSet> Open() { return OpenFilePackage(PackageTesting::Config(path_, 8)); }

  // A package of several shapes: whole pages, tails in two child files
  // (one crossing a page end), an empty stream, user data.
  std::vector<std::uint64_t> MakePackage(int streams, std::uint64_t userBytes = 100) {
    RefPtr<IDataStreamSet> package = CreateFilePackage(PackageTesting::Config(path_, 8));
    std::vector<std::uint64_t> sizes;
    for (int i = 0; i < streams; ++i) {
      const std::uint64_t size = (i * 7919u) % 30000 + (i % 5 == 0 ? 8192 : 0);
      PackageTesting::CreateFilled(package, size, static_cast<std::uint32_t>(i));
      sizes.push_back(size);
    }
    package->SetUserDataSize(userBytes);
    package->GetUserData()[0] = 1;
    EXPECT_TRUE(package->Save());
    return sizes;
  }

  void ExpectSaved(const RefPtr<IDataStreamSet>& package, const std::vector<std::uint64_t>& sizes) {
    ASSERT_TRUE(package);
    ASSERT_EQ(package->GetNumberOfStreams(), sizes.size());
    for (std::size_t i = 0; i < sizes.size(); ++i) {
      if (sizes[i] == 0) continue;
      EXPECT_EQ(PackageTesting::ReadAll(package->OpenStream(i)),
                PackageTesting::Bytes(sizes[i], static_cast<std::uint32_t>(i)))
          << i;
    }
  }

  TempDir dir_;
  std::wstring path_ = dir_.File("faults.dat");
};

TEST_F(PackageFaultsTest, CreatingOnAFullDeviceGivesNothing) {
  FileFaults::FailNth(FileCall::kWrite, 1, ENOSPC, true);
  EXPECT_FALSE(CreateFilePackage(PackageTesting::Config(path_)));
}

TEST_F(PackageFaultsTest, AFullDeviceRefusesChangesAndKeepsTheLastSave) {
  auto sizes = MakePackage(12);
  {
    RefPtr<IDataStreamSet> package = Open();
    ASSERT_TRUE(package);
    sizes.push_back(20 * 8192 + 5);
    ASSERT_EQ(PackageTesting::CreateFilled(package, sizes.back(), 12), 12u);
    ASSERT_TRUE(package->Save());
  }
  {
    RefPtr<IDataStreamSet> package = Open();
    ASSERT_TRUE(package);
    FileFaults::FailNth(FileCall::kWrite, 1, ENOSPC, true);
    EXPECT_THROW(package->CreateStream(40 * 8192), FileIOException);
    EXPECT_EQ(package->GetNumberOfStreams(), sizes.size());
    RefPtr<IDataStream> big = package->OpenStream(12);
    const auto bytes = PackageTesting::Bytes(big->GetSize(), 77);
    EXPECT_LT(big->Write(bytes.data(), bytes.size()), bytes.size()) << "pages that cannot be written back";
    ASSERT_NE(package->CreateStream(100), IDataStreamSet::kNoStream);
    EXPECT_THROW(package->Save(), FileIOException);
  }
  FileFaults::Reset();
  ExpectSaved(Open(), sizes);
}

TEST_F(PackageFaultsTest, AChildFileThatCannotBeMadeLeavesNoStreamBehind) {
  RefPtr<IDataStreamSet> package = CreateFilePackage(PackageTesting::Config(path_, 8));
  ASSERT_TRUE(package);
  FileFaults::FailNth(FileCall::kWrite, 1, ENOSPC, true);
  EXPECT_THROW(package->CreateStream(8191), FileIOException);
  EXPECT_EQ(package->GetNumberOfStreams(), 0u);
  FileFaults::Reset();
  const std::uint64_t id = PackageTesting::CreateFilled(package, 8191, 5);
  EXPECT_EQ(id, 0u);
  EXPECT_EQ(PackageTesting::ReadAll(package->OpenStream(id)), PackageTesting::Bytes(8191, 5));
}

TEST_F(PackageFaultsTest, SpaceComingBackLetsASavedPackageSave) {
  const auto sizes = MakePackage(6);
  RefPtr<IDataStreamSet> package = Open();
  ASSERT_TRUE(package);
  const std::uint64_t id = PackageTesting::CreateFilled(package, 20000, 99);
  FileFaults::FailNth(FileCall::kWrite, 1, ENOSPC, true);
  EXPECT_THROW(package->Save(), FileIOException);
  FileFaults::Reset();
  ASSERT_TRUE(package->Save());
  package.Reset();
  package = Open();
  ASSERT_TRUE(package);
  EXPECT_EQ(PackageTesting::ReadAll(package->OpenStream(id)), PackageTesting::Bytes(20000, 99));
  EXPECT_EQ(PackageTesting::ReadAll(package->OpenStream(2)), PackageTesting::Bytes(sizes[2], 2));
}

TEST_F(PackageFaultsTest, EveryFileCallOfASaveFailingInTurnLeavesAReadableFile) {
  MakePackage(10);
  const auto original = TempDir::ReadAll(path_);
  const auto change = [](const RefPtr<IDataStreamSet>& package) {
    package->RemoveStream(3);
    PackageTesting::CreateFilled(package, 9000, 50);
    PackageTesting::CreateFilled(package, 3 * 8192, 51);
  };
  std::uint64_t calls = 0;
  {
    RefPtr<IDataStreamSet> package = Open();
    change(package);
    FileFaults::StartCounting();
    ASSERT_TRUE(package->Save());
    calls = FileFaults::Calls(FileCall::kAny);
    FileFaults::Reset();
  }
  ASSERT_GT(calls, 5u);
  for (std::uint64_t n = 1; n <= calls; ++n) {
    TempDir::WriteAll(path_, original);
    {
      RefPtr<IDataStreamSet> package = Open();
      ASSERT_TRUE(package);
      change(package);
      FileFaults::FailNth(FileCall::kAny, n, EIO, true);
      try {
        package->Save();
      } catch (const std::exception&) {
        // A failed save is reported by an exception of the library's family.
      }
      FileFaults::Reset();
      FileFaults::FailNth(FileCall::kWrite, 1, ENOSPC, true);
    }
    FileFaults::Reset();
    RefPtr<IDataStreamSet> reopened = Open();
    if (reopened) ReadEverything(reopened);
  }
}

// A file cut at a page boundary opens exactly when its head chain lies in
// the pages left, and then each stream reads, exactly, its bytes up to its
// first page that the cut took away: no more, and never a wrong byte.
TEST_F(PackageFaultsTest, AFileCutAtAPageBoundaryReadsEachStreamUpToItsFirstMissingPage) {
  const auto sizes = MakePackage(40);
  const auto file = TempDir::ReadAll(path_);
  ASSERT_GT(file.size(), 20 * 8192u);
  const Testing::PackageLayout layout(path_);
  for (std::uint64_t pages = 0; pages < file.size() / 8192; ++pages) {
    SCOPED_TRACE(pages);
    TempDir::WriteAll(path_, std::vector<std::uint8_t>(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(pages * 8192)));
    RefPtr<IDataStreamSet> package = Open();
    ASSERT_EQ(static_cast<bool>(package), layout.HeadChainWithin(pages));
    if (!package) continue;
    ASSERT_EQ(package->GetNumberOfStreams(), sizes.size());
    for (std::size_t i = 0; i < sizes.size(); ++i) {
      const auto bytes = PackageTesting::Bytes(sizes[i], static_cast<std::uint32_t>(i));
      const auto within = static_cast<std::ptrdiff_t>(layout.BytesWithin(i, pages));
      EXPECT_EQ(PackageTesting::ReadAll(package->OpenStream(i)),
                std::vector<std::uint8_t>(bytes.begin(), bytes.begin() + within))
          << "stream " << i;
    }
  }
  TempDir::WriteAll(path_, file);
  ExpectSaved(Open(), sizes);
}

// Overwrites one byte of a file in place.
void PokeByte(const std::wstring& path, std::uint64_t offset, std::uint8_t value) {
  std::fstream file(std::filesystem::path(path), std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(static_cast<std::streamoff>(offset));
  file.put(static_cast<char>(value));
}

// File offsets of the head chain's bytes that the package interprets: every
// page header and the payload up to the user data's own bytes, which are
// opaque (only their length is read).
std::vector<std::uint64_t> InterpretedHeadBytes(const std::vector<std::uint8_t>& file, std::uint64_t userBytes) {
  const std::uint64_t interpreted = LittleEndian::Load64(file.data() + 8) - userBytes;
  std::vector<std::uint64_t> offsets;
  std::uint64_t base = 0;
  std::uint64_t header = 32;
  std::uint64_t payloadBefore = 0;
  for (std::uint64_t next = LittleEndian::Load64(file.data() + 16);; next = LittleEndian::Load64(file.data() + base)) {
    const std::uint64_t end = LittleEndian::Load64(file.data() + base + header - 8);
    for (std::uint64_t at = base; at < base + header; ++at) offsets.push_back(at);
    for (std::uint64_t at = base + header; at < base + end && payloadBefore + (at - base - header) < interpreted; ++at) {
      offsets.push_back(at);
    }
    payloadBefore += end - header;
    if (next == 0) break;
    base = (next - 10) * 8192;
    header = 16;
  }
  return offsets;
}

TEST_F(PackageFaultsTest, AnySingleByteFlippedInTheHeadChainOpensAsNothingOrReadably) {
  constexpr std::uint64_t kUserBytes = 7000;
  MakePackage(20, kUserBytes);
  const auto file = TempDir::ReadAll(path_);
  ASSERT_GE(LittleEndian::Load64(file.data()), 2u) << "a head chain of two pages";
  int opened = 0;
  for (std::uint64_t offset : InterpretedHeadBytes(file, kUserBytes)) {
    PokeByte(path_, offset, static_cast<std::uint8_t>(file[offset] ^ 0xFF));
    RefPtr<IDataStreamSet> package = Open();
    if (package) {
      ++opened;
      ReadEverything(package, 64 * 1024);
    }
    package.Reset();
    PokeByte(path_, offset, file[offset]);
  }
  EXPECT_GT(opened, 0);
}

}  // namespace
}  // namespace Tovrel
