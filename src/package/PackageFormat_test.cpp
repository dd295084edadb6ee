// The bytes of package files: what the package writes, read back by hand
// from the file, and files put together by hand that the package reads.
#include <gtest/gtest.h>

#include "package/PagedFilePackage.h"
#include "package/SectionIO.h"
#include "pagefile/FileDataCorruptException.h"
#include "pagefile/LittleEndian.h"
#include "support/HeadChainFile.h"
#include "support/PackageTesting.h"
#include "support/TempDir.h"
#include "tovrel/FilePackage.h"

namespace Tovrel {
namespace {

using Testing::HeadChainFile;
using Testing::PackageTesting;
using Testing::TempDir;

std::uint64_t At(const std::vector<std::uint8_t>& bytes, std::uint64_t offset) {
  return LittleEndian::Load64(bytes.data() + offset);
}

// The head chain's payload, found by following the page headers in the
// raw file bytes.
std::vector<std::uint8_t> HeadPayload(const std::vector<std::uint8_t>& file) {
  std::vector<std::uint8_t> payload;
  std::uint64_t next = At(file, 16);
  payload.insert(payload.end(), file.begin() + 32, file.begin() + static_cast<std::ptrdiff_t>(At(file, 24)));
  while (next != 0) {
    const std::uint64_t base = PageOffset(next);
    const std::uint64_t end = At(file, base + 8);
    payload.insert(payload.end(), file.begin() + static_cast<std::ptrdiff_t>(base + 16),
                   file.begin() + static_cast<std::ptrdiff_t>(base + end));
    next = At(file, base);
  }
  return payload;
}

class PackageFormatTest : public ::testing::Test {
 protected:
  RefPtr<IDataStreamSet> Create(std::uint64_t limit = 65535) {
    return CreateFilePackage(PackageTesting::Config(path_, 16, limit));
  }
  RefPtr<IDataStreamSet> Open(std::uint64_t limit = 65535) {
    return OpenFilePackage(PackageTesting::Config(path_, 16, limit));
  }
  // Writes a one-chain package file whose head payload is `payload`.
  void WriteFile(const std::vector<std::uint8_t>& payload) {
    std::vector<std::uint64_t> others;
    for (std::uint64_t id = 11; id < 11 + payload.size() / 8000 + 2; ++id) others.push_back(id);
    FilePageCache cache(path_.c_str(), 8);
    HeadChainFile::Write(cache, HeadChainFile::Layout(payload.size(), others), payload);
  }

  TempDir dir_;
  std::wstring path_ = dir_.File("format.dat");
};

TEST_F(PackageFormatTest, AnEmptyPackageIsOnePageWithFourShortSections) {
  ASSERT_TRUE(Create());
  const auto file = TempDir::ReadAll(path_);
  ASSERT_EQ(file.size(), 8192u);
  EXPECT_EQ(At(file, 0), 1u);    // page count
  EXPECT_EQ(At(file, 8), 48u);   // payload bytes
  EXPECT_EQ(At(file, 16), 0u);   // no next page
  EXPECT_EQ(At(file, 24), 80u);  // end of the payload
  // Allocation table: one entry, page 10 in use and last of its chain.
  EXPECT_EQ(At(file, 32), 1u);
  EXPECT_EQ(At(file, 40), 0u);
  // Stream table (8 bytes), child-file table (16), user data (8).
  for (std::uint64_t offset = 48; offset < 80; offset += 8) EXPECT_EQ(At(file, offset), 0u) << offset;
}

TEST_F(PackageFormatTest, StreamEntriesAndTailRecordsFollowTheAllocationTable) {
  {
    RefPtr<IDataStreamSet> package = Create();
    PackageTesting::CreateFilled(package, 8192 + 100, 1);
    PackageTesting::CreateFilled(package, 50, 2);
    package->SetUserDataSize(3);
    package->GetUserData()[0] = 0xAB;
  }
  const auto payload = HeadPayload(TempDir::ReadAll(path_));
  const std::uint64_t links = At(payload, 0);
  std::uint64_t at = 8 + 8 * links;
  ASSERT_EQ(At(payload, at), 2u);
  const std::uint64_t firstPage = At(payload, at + 24);
  EXPECT_EQ(At(payload, at + 8), 0u);
  EXPECT_EQ(At(payload, at + 16), 8192u + 100);
  EXPECT_EQ(At(payload, at + 32), 1u);
  EXPECT_EQ(At(payload, at + 40), 1u);
  EXPECT_EQ(At(payload, at + 48), 50u);
  EXPECT_EQ(At(payload, at + 56), 0u);
  EXPECT_EQ(At(payload, at + 64), 0u);
  EXPECT_EQ(At(payload, 8 + 8 * (firstPage - 10)), 0u) << "the stream's page ends its chain";
  at += 8 + 2 * 32;
  ASSERT_EQ(At(payload, at), 1u);  // one child file
  EXPECT_EQ(At(payload, at + 8), 0u);
  for (std::uint64_t i = 1; i < 8; ++i) {
    EXPECT_EQ(At(payload, 8 + 8 * (At(payload, at + 8 + 8 * i) - 10)), At(payload, at + 16 + 8 * i))
        << "child pages are chained in order";
  }
  EXPECT_EQ(At(payload, at + 80), 65536u - 150);
  EXPECT_EQ(At(payload, at + 88), 2u);
  EXPECT_EQ(At(payload, at + 96), 0u);
  EXPECT_EQ(At(payload, at + 104), 1u);
  at += 112;
  ASSERT_EQ(At(payload, at), 2u);
  const std::vector<std::uint64_t> tails{0, 0, 0, 0, 100, 1, 0, 1, 100, 50};
  for (std::size_t i = 0; i < tails.size(); ++i) EXPECT_EQ(At(payload, at + 8 + 8 * i), tails[i]) << i;
  at += 8 + 80;
  EXPECT_EQ(At(payload, at), 3u);
  EXPECT_EQ(payload[at + 8], 0xAB);
  EXPECT_EQ(payload.size(), at + 8 + 3);
}

TEST_F(PackageFormatTest, AStreamsBytesLieInItsPagesAndItsTailAtItsChildFileOffset) {
  std::uint64_t crossing = 0;
  {
    RefPtr<IDataStreamSet> package = Create();
    PackageTesting::CreateFilled(package, 8000, 1);
    crossing = PackageTesting::CreateFilled(package, 8192 + 6000, 2);
  }
  RefPtr<PagedFilePackage> reader(new PagedFilePackage(PackageTesting::Config(path_)));
  ASSERT_TRUE(reader->Reload());
  const StreamEntry entry = *reader->GetStreamTable().Find(crossing);
  const ChildFileRecord child = *reader->GetChildFileTable().FindChildFile(0);
  EXPECT_EQ(reader->GetChildFileTable().FindTail(crossing)->offset, 8000u);
  reader.Reset();
  const auto file = TempDir::ReadAll(path_);
  const auto bytes = PackageTesting::Bytes(8192 + 6000, 2);
  auto from = [&](std::uint64_t offset) { return file.begin() + static_cast<std::ptrdiff_t>(offset); };
  EXPECT_TRUE(std::equal(bytes.begin(), bytes.begin() + 8192, from(PageOffset(entry.firstPage))));
  EXPECT_TRUE(std::equal(bytes.begin() + 8192, bytes.begin() + 8192 + 192, from(PageOffset(child.page[0]) + 8000)));
  EXPECT_TRUE(std::equal(bytes.begin() + 8192 + 192, bytes.end(), from(PageOffset(child.page[1]))));
  const auto first = PackageTesting::Bytes(8000, 1);
  EXPECT_TRUE(std::equal(first.begin(), first.end(), from(PageOffset(child.page[0]))));
}

TEST_F(PackageFormatTest, ALongHeadChainHasFullPagesLinkedByTheirHeaders) {
  {
    RefPtr<IDataStreamSet> package = Create();
    for (int i = 0; i < 400; ++i) package->CreateStream(1);
  }
  const auto file = TempDir::ReadAll(path_);
  const std::uint64_t size = At(file, 8);
  const std::uint64_t count = At(file, 0);
  EXPECT_EQ(count, ChainPagesFor(size));
  ASSERT_GE(count, 3u);
  EXPECT_EQ(At(file, 24), 8192u);
  std::uint64_t next = At(file, 16);
  for (std::uint64_t k = 1; k < count; ++k) {
    ASSERT_NE(next, 0u) << k;
    const std::uint64_t base = PageOffset(next);
    const std::uint64_t expectedEnd = k + 1 < count ? 8192 : 8192 - (8160 + k * 8176 - size);
    EXPECT_EQ(At(file, base + 8), expectedEnd) << k;
    next = At(file, base);
  }
  EXPECT_EQ(next, 0u);
  EXPECT_EQ(HeadPayload(file).size(), size);
}

TEST_F(PackageFormatTest, ABrokenLinkInTheHeadChainFailsTheLoadAsCorruptWhereverItIs) {
  {
    RefPtr<IDataStreamSet> package = Create();
    for (int i = 0; i < 1200; ++i) package->CreateStream(1);
  }
  const auto file = TempDir::ReadAll(path_);
  ASSERT_GE(At(file, 0), 4u);
  std::vector<std::uint64_t> chain{10};
  for (std::uint64_t next = At(file, 16); next != 0; next = At(file, PageOffset(next))) chain.push_back(next);
  ASSERT_EQ(chain.size(), At(file, 0));
  // A link back to the first page, in the middle of the tables and on the
  // page before the last; and a link past the end of the file.
  for (const auto& broken :
       {std::make_pair(chain[1], std::uint64_t{10}), std::make_pair(chain[chain.size() - 2], chain[1]),
        std::make_pair(chain[1], std::uint64_t{1000000})}) {
    const auto original = TempDir::ReadAll(path_);
    HeadChainFile::Patch(path_, broken.first, 0, broken.second);
    RefPtr<PagedFilePackage> package(new PagedFilePackage(PackageTesting::Config(path_, 16, 65535)));
    EXPECT_THROW(package->Load(), FileDataCorruptException) << broken.first << " -> " << broken.second;
    package.Reset();
    TempDir::WriteAll(path_, original);
  }
  EXPECT_TRUE(Open());
}

// A payload of the four sections with the given stream entries and no
// child files; the allocation table marks only page 10 in use.
std::vector<std::uint8_t> Payload(const std::vector<StreamEntry>& entries) {
  std::vector<std::uint8_t> bytes;
  SectionIO::Put(bytes, 1);
  SectionIO::Put(bytes, 0);
  SectionIO::Put(bytes, entries.size());
  for (const StreamEntry& e : entries) {
    for (std::uint64_t v : {e.identifier, e.size, e.firstPage, e.fullPageCount}) SectionIO::Put(bytes, v);
  }
  for (int i = 0; i < 3; ++i) SectionIO::Put(bytes, 0);
  return bytes;
}

TEST_F(PackageFormatTest, AFileMadeByHandOpens) {
  WriteFile(Payload({{4, 0, 0, 0}}));
  RefPtr<IDataStreamSet> package = Open(4);
  ASSERT_TRUE(package);
  EXPECT_EQ(PackageTesting::Identifiers(package), (std::vector<std::uint64_t>{4}));
  EXPECT_FALSE(Open(3));
}

TEST_F(PackageFormatTest, AsManyStreamsAsTheLimitOpenAndOneMoreDoesNot) {
  WriteFile(Payload({{0, 0, 0, 0}, {1, 0, 0, 0}}));
  EXPECT_TRUE(Open(2));
  EXPECT_FALSE(Open(1));
}

TEST_F(PackageFormatTest, ATruncatedDirectoryDoesNotOpen) {
  auto payload = Payload({{0, 0, 0, 0}});
  payload.resize(payload.size() - 1);
  WriteFile(payload);
  EXPECT_FALSE(Open());
}

// Tail records patched in a saved file. Stream long_ (8192 + 100 bytes)
// has the child file's first 100 bytes as its tail, stream short_ (50
// bytes) the 50 right behind them: the child file's used bytes are 150.
class TailRecordTest : public PackageFormatTest {
 protected:
  void SetUp() override {
    RefPtr<IDataStreamSet> package = Create();
    long_ = PackageTesting::CreateFilled(package, 8192 + 100, 1);
    short_ = PackageTesting::CreateFilled(package, 50, 2);
  }
  // Gives short_'s tail record this offset and size, in the file.
  void PatchShortTail(std::uint64_t offset, std::uint64_t size) {
    auto file = TempDir::ReadAll(path_);
    const auto payload = HeadPayload(file);
    ASSERT_LE(payload.size(), kPageSize - 32) << "the head chain is one page";
    std::uint64_t at = 8 + 8 * At(payload, 0);  // past the allocation table
    at += 8 + 32 * At(payload, at);              // past the stream table
    const std::uint64_t children = At(payload, at);
    at += 8;
    for (std::uint64_t c = 0; c < children; ++c) at += 88 + 8 * At(payload, at + 80);
    const std::uint64_t tails = At(payload, at);
    for (std::uint64_t record = at + 8; record < at + 8 + 40 * tails; record += 40) {
      if (At(payload, record) != short_) continue;
      LittleEndian::Store64(file.data() + 32 + record + 24, offset);
      LittleEndian::Store64(file.data() + 32 + record + 32, size);
      TempDir::WriteAll(path_, file);
      return;
    }
    FAIL() << "no tail record of stream " << short_;
  }
  // The package opens, long_ reads exactly, and short_ reads exactly or,
  // when `readable` is false, cannot be opened.
  void ExpectOpensWithShortStream(bool readable) {
    RefPtr<IDataStreamSet> package = Open();
    ASSERT_TRUE(package);
    EXPECT_EQ(PackageTesting::ReadAll(package->OpenStream(long_)), PackageTesting::Bytes(8192 + 100, 1));
    if (readable) {
      EXPECT_EQ(PackageTesting::ReadAll(package->OpenStream(short_)), PackageTesting::Bytes(50, 2));
    } else {
      EXPECT_THROW(package->OpenStream(short_), FileDataCorruptException);
    }
  }

  std::uint64_t long_ = 0;
  std::uint64_t short_ = 0;
};

TEST_F(TailRecordTest, ATailEndingAtTheUsedBytesEndReads) {
  PatchShortTail(100, 50);  // as saved: the last tail ends where the used bytes do
  ExpectOpensWithShortStream(true);
}

TEST_F(TailRecordTest, ATailThatStartsAtOrPastTheUsedBytesEndCannotBeOpened) {
  for (std::uint64_t offset : {std::uint64_t{150}, std::uint64_t{8192}, kChildFileSize - 1}) {
    SCOPED_TRACE(offset);
    PatchShortTail(offset, 1);
    ExpectOpensWithShortStream(false);
  }
}

TEST_F(TailRecordTest, ATailThatRunsPastTheUsedBytesEndCannotBeOpened) {
  PatchShortTail(100, 51);
  ExpectOpensWithShortStream(false);
  PatchShortTail(149, 2);
  ExpectOpensWithShortStream(false);
}

TEST_F(TailRecordTest, ATailOffsetPastTheChildFileFailsTheLoad) {
  PatchShortTail(kChildFileSize, 1);
  EXPECT_FALSE(Open());
  PatchShortTail(~std::uint64_t{0} - 10, 50);  // offset + size wraps around
  EXPECT_FALSE(Open());
}

}  // namespace
}  // namespace Tovrel
