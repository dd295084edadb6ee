#include "package/PagedFilePackage.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "pagefile/FileDataCorruptException.h"
#include "platform/FileFaults.h"
#include "support/InstalledFileSystem.h"
#include "support/PackageTesting.h"
#include "support/TempDir.h"
#include "tovrel/FilePackage.h"

namespace Tovrel {
namespace {

using Testing::PackageTesting;
using Testing::TempDir;

class PagedFilePackageTest : public ::testing::Test {
 protected:
  void TearDown() override { FileFaults::Reset(); }

  RefPtr<PagedFilePackage> Create(std::uint64_t cachePages = 16, std::uint64_t limit = 65535) {
    RefPtr<PagedFilePackage> package(new PagedFilePackage(PackageTesting::Config(path_, cachePages, limit)));
    package->Create();
    return package;
  }
  RefPtr<PagedFilePackage> Open(std::uint64_t cachePages = 16, std::uint64_t limit = 65535) {
    RefPtr<PagedFilePackage> package(new PagedFilePackage(PackageTesting::Config(path_, cachePages, limit)));
    return package->Reload() ? package : RefPtr<PagedFilePackage>();
  }
  RefPtr<IDataStreamSet> Set(const RefPtr<PagedFilePackage>& package) { return RefPtr<IDataStreamSet>(package.Get()); }
  const StreamTailRecord* Tail(const RefPtr<PagedFilePackage>& package, std::uint64_t id) {
    return package->GetChildFileTable().FindTail(id);
  }

  TempDir dir_;
  std::wstring path_ = dir_.File("package.dat");
};

TEST_F(PagedFilePackageTest, StreamsRoundTripThroughSaveAndReopen) {
  std::vector<std::uint64_t> ids;
  {
    RefPtr<PagedFilePackage> package = Create();
    for (std::uint64_t size : {1u, 100u, 8191u, 8192u, 8193u, 30000u, 70000u}) {
      ids.push_back(PackageTesting::CreateFilled(Set(package), size, static_cast<std::uint32_t>(size)));
    }
    ASSERT_TRUE(package->Save());
  }
  RefPtr<PagedFilePackage> package = Open();
  ASSERT_TRUE(package);
  ASSERT_EQ(package->GetNumberOfStreams(), ids.size());
  for (std::uint64_t id : ids) {
    RefPtr<IDataStream> stream = package->OpenStream(id);
    ASSERT_TRUE(stream) << id;
    EXPECT_EQ(PackageTesting::ReadAll(stream), PackageTesting::Bytes(stream->GetSize(), static_cast<std::uint32_t>(stream->GetSize())));
  }
}

TEST_F(PagedFilePackageTest, EmptyStreamHasNoPagesNoTailAndCannotBeOpened) {
  RefPtr<PagedFilePackage> package = Create();
  const std::uint64_t tableBefore = package->GetAllocator().GetTableLength();
  const std::uint64_t id = package->CreateStream(0);
  ASSERT_NE(id, IDataStreamSet::kNoStream);
  EXPECT_EQ(package->GetNumberOfStreams(), 1u);
  EXPECT_EQ(package->GetStreamTable().Find(id)->firstPage, 0u);
  EXPECT_EQ(package->GetStreamTable().Find(id)->fullPageCount, 0u);
  EXPECT_EQ(Tail(package, id), nullptr);
  EXPECT_EQ(package->GetChildFileTable().GetChildFileCount(), 0u);
  EXPECT_EQ(package->GetAllocator().GetTableLength(), tableBefore);
  EXPECT_FALSE(package->OpenStream(id));
  EXPECT_TRUE(package->RemoveStream(id));
  EXPECT_EQ(package->GetNumberOfStreams(), 0u);
}

TEST_F(PagedFilePackageTest, StreamBelowAPageIsAllTail) {
  RefPtr<PagedFilePackage> package = Create();
  const std::uint64_t id = package->CreateStream(8191);
  EXPECT_EQ(package->GetStreamTable().Find(id)->firstPage, 0u);
  EXPECT_EQ(package->GetStreamTable().Find(id)->fullPageCount, 0u);
  ASSERT_NE(Tail(package, id), nullptr);
  EXPECT_EQ(Tail(package, id)->size, 8191u);
  EXPECT_EQ(Tail(package, id)->offset, 0u);
  EXPECT_EQ(package->GetChildFileTable().GetChildFileCount(), 1u);
}

TEST_F(PagedFilePackageTest, StreamOfOnePageHasNoTail) {
  RefPtr<PagedFilePackage> package = Create();
  const std::uint64_t id = package->CreateStream(8192);
  const StreamEntry* entry = package->GetStreamTable().Find(id);
  EXPECT_EQ(entry->fullPageCount, 1u);
  EXPECT_TRUE(package->GetAllocator().IsPageAllocated(entry->firstPage));
  EXPECT_EQ(package->GetAllocator().GetNextPage(entry->firstPage), IPageAllocator::kEndLink);
  EXPECT_EQ(Tail(package, id), nullptr);
  EXPECT_EQ(package->GetChildFileTable().GetChildFileCount(), 0u);
}

TEST_F(PagedFilePackageTest, OneByteOverAPageMakesAOneByteTail) {
  RefPtr<PagedFilePackage> package = Create();
  const std::uint64_t id = package->CreateStream(8193);
  EXPECT_EQ(package->GetStreamTable().Find(id)->fullPageCount, 1u);
  ASSERT_NE(Tail(package, id), nullptr);
  EXPECT_EQ(Tail(package, id)->size, 1u);
}

TEST_F(PagedFilePackageTest, WholePagesOfAStreamAreChainedInTheTable) {
  RefPtr<PagedFilePackage> package = Create();
  const std::uint64_t id = package->CreateStream(5 * 8192 + 7);
  const StreamEntry* entry = package->GetStreamTable().Find(id);
  std::uint64_t page = entry->firstPage;
  for (int i = 0; i < 4; ++i) page = package->GetAllocator().GetNextPage(page);
  EXPECT_EQ(package->GetAllocator().GetNextPage(page), IPageAllocator::kEndLink);
  EXPECT_GE(package->GetPageCache()->GetFileLength(), PageOffset(page) + kPageSize);
}

TEST_F(PagedFilePackageTest, TailsFillChildFilesFirstFit) {
  RefPtr<PagedFilePackage> package = Create();
  std::vector<std::uint64_t> ids;
  for (int i = 0; i < 8; ++i) ids.push_back(package->CreateStream(8000));
  EXPECT_EQ(package->GetChildFileTable().GetChildFileCount(), 1u);
  const std::uint64_t big = package->CreateStream(8191);
  EXPECT_EQ(package->GetChildFileTable().GetChildFileCount(), 2u);
  EXPECT_EQ(Tail(package, big)->childFileIdentifier, 1u);
  EXPECT_EQ(Tail(package, big)->offset, 0u);
  const std::uint64_t small = package->CreateStream(1536);
  EXPECT_EQ(Tail(package, small)->childFileIdentifier, 0u);
  EXPECT_EQ(Tail(package, small)->offset, 64000u);
  const std::uint64_t next = package->CreateStream(1);
  EXPECT_EQ(Tail(package, next)->childFileIdentifier, 1u);
  EXPECT_EQ(Tail(package, next)->offset, 8191u);
  EXPECT_EQ(package->GetChildFileTable().FindChildFile(0)->freeBytes, 0u);
  EXPECT_EQ(Tail(package, ids[3])->indexInChild, 3u);
}

TEST_F(PagedFilePackageTest, ATailCrossesAChildPageBoundaryButNeverLeavesItsChild) {
  RefPtr<PagedFilePackage> package = Create();
  const std::uint64_t first = PackageTesting::CreateFilled(Set(package), 5000, 1);
  const std::uint64_t crossing = PackageTesting::CreateFilled(Set(package), 8192 + 6000, 2);
  EXPECT_EQ(Tail(package, crossing)->offset, 5000u);
  RefPtr<IDataStream> stream = package->OpenStream(crossing);
  EXPECT_EQ(PackageTesting::ReadAll(stream), PackageTesting::Bytes(8192 + 6000, 2));
  for (int i = 0; i < 7; ++i) PackageTesting::CreateFilled(Set(package), 7000, 3 + i);
  EXPECT_EQ(package->GetChildFileTable().GetChildFileCount(), 1u);
  EXPECT_EQ(package->GetChildFileTable().FindChildFile(0)->freeBytes, 65536u - 5000 - 6000 - 7 * 7000);
  const std::uint64_t last = PackageTesting::CreateFilled(Set(package), 6000, 99);
  EXPECT_EQ(Tail(package, last)->childFileIdentifier, 1u);
  EXPECT_EQ(PackageTesting::ReadAll(package->OpenStream(first)), PackageTesting::Bytes(5000, 1));
}

TEST_F(PagedFilePackageTest, CreationStopsAtTheStreamLimitWithoutLeavingPages) {
  RefPtr<PagedFilePackage> package = Create(16, 3);
  for (int i = 0; i < 3; ++i) ASSERT_NE(package->CreateStream(100), IDataStreamSet::kNoStream);
  const std::uint64_t table = package->GetAllocator().GetTableLength();
  std::uint64_t inUse = 0;
  for (std::uint64_t p = 10; p < 10 + table; ++p) inUse += package->GetAllocator().IsPageAllocated(p) ? 1 : 0;
  EXPECT_EQ(package->CreateStream(5 * 8192), IDataStreamSet::kNoStream);
  std::uint64_t after = 0;
  for (std::uint64_t p = 10; p < 10 + package->GetAllocator().GetTableLength(); ++p) {
    after += package->GetAllocator().IsPageAllocated(p) ? 1 : 0;
  }
  EXPECT_EQ(after, inUse);
  EXPECT_EQ(package->GetNumberOfStreams(), 3u);
}

TEST_F(PagedFilePackageTest, ATailThatWouldNeedAChildFileBeyondTheReadableLimitIsRefused) {
  RefPtr<PagedFilePackage> package = Create(16, 10);
  for (int i = 0; i < 8; ++i) ASSERT_NE(package->CreateStream(8000), IDataStreamSet::kNoStream);
  EXPECT_EQ(package->CreateStream(8000), IDataStreamSet::kNoStream);
  EXPECT_EQ(package->GetNumberOfStreams(), 8u);
  EXPECT_NE(package->CreateStream(1536), IDataStreamSet::kNoStream);
  EXPECT_NE(package->CreateStream(3 * 8192), IDataStreamSet::kNoStream);
  ASSERT_TRUE(package->Save());
  package.Reset();
  ASSERT_TRUE(Open(16, 10));
}

TEST_F(PagedFilePackageTest, AStreamNoFileCanHoldIsRefused) {
  RefPtr<PagedFilePackage> package = Create();
  EXPECT_EQ(package->CreateStream(~std::uint64_t{0}), IDataStreamSet::kNoStream);
  EXPECT_EQ(package->CreateStream((kPageLimit + 1) * kPageSize), IDataStreamSet::kNoStream);
  EXPECT_EQ(package->GetNumberOfStreams(), 0u);
  EXPECT_FALSE(package->IsModified());
}

TEST_F(PagedFilePackageTest, SizesThatSigned32BitPositionsCannotReachAreRefusedAndTheLargestWorks) {
  Testing::InstalledFileSystem memory;  // sparse: the largest stream costs only the pages written
  const std::wstring path = L"large.dat";
  RefPtr<PagedFilePackage> package(new PagedFilePackage(PackageTesting::Config(path, 16)));
  package->Create();
  const std::uint64_t table = package->GetAllocator().GetTableLength();
  for (std::uint64_t size : {std::uint64_t{1} << 31, (std::uint64_t{1} << 32) + 100, std::uint64_t{3} << 30}) {
    EXPECT_EQ(package->CreateStream(size), IDataStreamSet::kNoStream) << size;
  }
  EXPECT_EQ(package->GetNumberOfStreams(), 0u);
  EXPECT_EQ(package->GetAllocator().GetTableLength(), table);
  EXPECT_FALSE(package->IsModified());

  const std::uint64_t largest = (std::uint64_t{1} << 31) - 1;
  const std::uint64_t id = package->CreateStream(largest);
  ASSERT_NE(id, IDataStreamSet::kNoStream);
  const std::int32_t middle = (1 << 30) - 8;  // eight bytes before a page boundary
  const std::vector<std::uint8_t> first = PackageTesting::Bytes(100, 1);
  const std::vector<std::uint8_t> across = PackageTesting::Bytes(16, 2);
  const std::uint8_t last = 0xA5;
  {
    RefPtr<IDataStream> stream = package->OpenStream(id);
    ASSERT_TRUE(stream);
    EXPECT_EQ(stream->GetSize(), largest);
    EXPECT_EQ(stream->Write(first.data(), first.size()), first.size());
    ASSERT_TRUE(stream->Seek(0, middle));
    EXPECT_EQ(stream->Write(across.data(), across.size()), across.size());
    ASSERT_TRUE(stream->Seek(2, -1));
    EXPECT_EQ(stream->GetPosition(), largest - 1);
    EXPECT_EQ(stream->Write(&last, 1), 1u);
    EXPECT_EQ(stream->GetPosition(), largest);
    EXPECT_EQ(stream->Write(&last, 1), 0u);  // the end
  }
  ASSERT_TRUE(package->Save());
  ASSERT_TRUE(package->Reload());
  RefPtr<IDataStream> stream = package->OpenStream(id);
  ASSERT_TRUE(stream);
  EXPECT_EQ(stream->GetSize(), largest);
  std::vector<std::uint8_t> back(100);
  EXPECT_EQ(stream->Read(back.data(), back.size()), back.size());
  EXPECT_EQ(back, first);
  back.resize(16);
  ASSERT_TRUE(stream->Seek(0, middle));
  EXPECT_EQ(stream->Read(back.data(), back.size()), back.size());
  EXPECT_EQ(back, across);
  ASSERT_TRUE(stream->Seek(2, -1));
  std::uint8_t end[2] = {};
  EXPECT_EQ(stream->Read(end, 2), 1u);
  EXPECT_EQ(end[0], last);
}

TEST_F(PagedFilePackageTest, RemovingAStreamCompactsItsChildFile) {
  RefPtr<PagedFilePackage> package = Create();
  const std::uint64_t a = PackageTesting::CreateFilled(Set(package), 3000, 1);
  const std::uint64_t b = PackageTesting::CreateFilled(Set(package), 8192 + 7000, 2);
  const std::uint64_t c = PackageTesting::CreateFilled(Set(package), 4000, 3);
  const std::uint64_t d = PackageTesting::CreateFilled(Set(package), 100, 4);
  ASSERT_TRUE(package->RemoveStream(b));
  EXPECT_EQ(Tail(package, b), nullptr);
  EXPECT_EQ(Tail(package, a)->offset, 0u);
  EXPECT_EQ(Tail(package, c)->offset, 3000u);
  EXPECT_EQ(Tail(package, d)->offset, 7000u);
  EXPECT_EQ(Tail(package, c)->indexInChild, 1u);
  EXPECT_EQ(Tail(package, d)->indexInChild, 2u);
  EXPECT_EQ(*package->GetChildFileTable().TailsOf(0), (std::vector<std::uint64_t>{a, c, d}));
  EXPECT_EQ(package->GetChildFileTable().FindChildFile(0)->freeBytes, 65536u - 7100);
  EXPECT_EQ(PackageTesting::ReadAll(package->OpenStream(a)), PackageTesting::Bytes(3000, 1));
  EXPECT_EQ(PackageTesting::ReadAll(package->OpenStream(c)), PackageTesting::Bytes(4000, 3));
  EXPECT_EQ(PackageTesting::ReadAll(package->OpenStream(d)), PackageTesting::Bytes(100, 4));
  EXPECT_EQ(package->GetNumberOfStreams(), 3u);
  EXPECT_EQ(package->GetTotalStreamSize(), 7100u);
}

TEST_F(PagedFilePackageTest, RemovingFreesTheWholePagesForReuse) {
  RefPtr<PagedFilePackage> package = Create();
  const std::uint64_t a = package->CreateStream(3 * 8192);
  const std::uint64_t first = package->GetStreamTable().Find(a)->firstPage;
  const std::uint64_t table = package->GetAllocator().GetTableLength();
  ASSERT_TRUE(package->RemoveStream(a));
  EXPECT_FALSE(package->GetAllocator().IsPageAllocated(first));
  const std::uint64_t b = package->CreateStream(3 * 8192);
  EXPECT_EQ(package->GetStreamTable().Find(b)->firstPage, first);
  EXPECT_EQ(package->GetAllocator().GetTableLength(), table);
  EXPECT_EQ(b, a);
}

TEST_F(PagedFilePackageTest, UnknownStreamsAreNotFoundAndRemoveAsDone) {
  RefPtr<PagedFilePackage> package = Create();
  EXPECT_FALSE(package->OpenStream(5));
  EXPECT_TRUE(package->RemoveStream(5));
  EXPECT_FALSE(package->IsModified());
}

TEST_F(PagedFilePackageTest, AStreamOpenedTwiceIsTheSameObjectUntilItIsReleased) {
  RefPtr<PagedFilePackage> package = Create();
  const std::uint64_t id = package->CreateStream(100);
  RefPtr<IDataStream> first = package->OpenStream(id);
  RefPtr<IDataStream> second = package->OpenStream(id);
  EXPECT_EQ(first.Get(), second.Get());
  EXPECT_EQ(package->GetOpenStreamCount(), 1u);
  EXPECT_FALSE(package->RemoveStream(id));
  first.Reset();
  second.Reset();
  EXPECT_EQ(package->GetOpenStreamCount(), 0u);
  EXPECT_TRUE(package->RemoveStream(id));
}

TEST_F(PagedFilePackageTest, SaveWithoutChangesWritesNothing) {
  RefPtr<PagedFilePackage> package = Create();
  PackageTesting::CreateFilled(Set(package), 100, 1);
  ASSERT_TRUE(package->Save());
  FileFaults::StartCounting();
  EXPECT_TRUE(package->Save());
  EXPECT_EQ(FileFaults::Calls(FileCall::kAny), 0u);
}

TEST_F(PagedFilePackageTest, ReloadWithAStreamOpenChangesNothing) {
  RefPtr<PagedFilePackage> package = Create();
  const std::uint64_t id = PackageTesting::CreateFilled(Set(package), 100, 1);
  ASSERT_TRUE(package->Save());
  package->CreateStream(50);
  RefPtr<IDataStream> stream = package->OpenStream(id);
  FileFaults::StartCounting();
  EXPECT_FALSE(package->Reload());
  EXPECT_EQ(FileFaults::Calls(FileCall::kAny), 0u);
  EXPECT_EQ(package->GetNumberOfStreams(), 2u);
  EXPECT_TRUE(package->IsModified());
  EXPECT_EQ(PackageTesting::ReadAll(stream), PackageTesting::Bytes(100, 1));
}

TEST_F(PagedFilePackageTest, ReloadReadsTheSavedTablesAndDropsUnsavedPageWrites) {
  RefPtr<PagedFilePackage> package = Create(64);
  const std::uint64_t id = PackageTesting::CreateFilled(Set(package), 300, 1);
  ASSERT_TRUE(package->Save());
  ASSERT_TRUE(PackageTesting::WriteAll(package->OpenStream(id), PackageTesting::Bytes(300, 2)));
  ASSERT_TRUE(package->Reload());
  EXPECT_FALSE(package->IsModified());
  EXPECT_EQ(PackageTesting::ReadAll(package->OpenStream(id)), PackageTesting::Bytes(300, 1));
}

TEST_F(PagedFilePackageTest, ReloadSavesTheFormerStateAsItGoesWhenItWasModified) {
  RefPtr<PagedFilePackage> package = Create();
  PackageTesting::CreateFilled(Set(package), 100, 1);
  ASSERT_TRUE(package->Save());
  package->CreateStream(200);
  ASSERT_TRUE(package->Reload());
  EXPECT_EQ(package->GetNumberOfStreams(), 1u);
  EXPECT_FALSE(package->IsModified());
  package.Reset();
  EXPECT_EQ(Open()->GetNumberOfStreams(), 2u);
}

TEST_F(PagedFilePackageTest, AFailedReloadKeepsTheTables) {
  RefPtr<PagedFilePackage> package = Create();
  PackageTesting::CreateFilled(Set(package), 100, 1);
  ASSERT_TRUE(package->Save());
  TempDir::WriteAll(path_, std::vector<std::uint8_t>(8192, 0xEE));
  EXPECT_FALSE(package->Reload());
  EXPECT_EQ(package->GetNumberOfStreams(), 1u);
}

TEST_F(PagedFilePackageTest, ReleasingAModifiedPackageSavesIt) {
  {
    RefPtr<PagedFilePackage> package = Create();
    PackageTesting::CreateFilled(Set(package), 20000, 7);
    package->SetUserDataSize(3);
    package->GetUserData()[1] = 42;
    EXPECT_TRUE(package->IsModified());
  }
  RefPtr<PagedFilePackage> package = Open();
  ASSERT_EQ(package->GetNumberOfStreams(), 1u);
  EXPECT_EQ(PackageTesting::ReadAll(package->OpenStream(0)), PackageTesting::Bytes(20000, 7));
  ASSERT_EQ(package->GetUserDataSize(), 3u);
  EXPECT_EQ(static_cast<const PagedFilePackage&>(*package).GetUserData()[1], 42);
}

TEST_F(PagedFilePackageTest, UserDataGrowsWithZerosAndOnlyWritingAccessMarksTheChange) {
  RefPtr<PagedFilePackage> package = Create();
  EXPECT_EQ(static_cast<const PagedFilePackage&>(*package).GetUserData(), nullptr);
  EXPECT_TRUE(package->SetUserDataSize(10));
  ASSERT_TRUE(package->Save());
  const PagedFilePackage& reader = *package;
  EXPECT_EQ(reader.GetUserData()[9], 0);
  EXPECT_FALSE(package->IsModified());
  package->GetUserData()[9] = 5;
  EXPECT_TRUE(package->IsModified());
  EXPECT_FALSE(package->SetUserDataSize(~std::uint64_t{0} >> 1));
  EXPECT_EQ(package->GetUserDataSize(), 10u);
}

TEST_F(PagedFilePackageTest, IdentifiersAreListedInAscendingOrderAndReusedLowestFirst) {
  RefPtr<PagedFilePackage> package = Create();
  for (int i = 0; i < 5; ++i) package->CreateStream(10);
  ASSERT_TRUE(package->RemoveStream(1));
  ASSERT_TRUE(package->RemoveStream(3));
  EXPECT_EQ(PackageTesting::Identifiers(Set(package)), (std::vector<std::uint64_t>{0, 2, 4}));
  EXPECT_EQ(package->GetStreamIdentifier(3), IDataStreamSet::kNoStream);
  EXPECT_EQ(package->CreateStream(10), 1u);
  EXPECT_EQ(package->GetTotalStreamSize(), 40u);
}

TEST_F(PagedFilePackageTest, AStreamOutlivingItsPackageMovesNothing) {
  RefPtr<IDataStream> stream;
  {
    RefPtr<PagedFilePackage> package = Create();
    const std::uint64_t id = PackageTesting::CreateFilled(Set(package), 100, 1);
    stream = package->OpenStream(id);
  }
  std::uint8_t byte = 0;
  EXPECT_EQ(stream->Read(&byte, 1), 0u);
  EXPECT_EQ(stream->Write(&byte, 1), 0u);
  EXPECT_EQ(stream->GetSize(), 100u);
  stream.Reset();
  EXPECT_EQ(PackageTesting::ReadAll(Open()->OpenStream(0)), PackageTesting::Bytes(100, 1));
}

TEST_F(PagedFilePackageTest, ACacheOfOnePageServesEveryOperation) {
  RefPtr<PagedFilePackage> package = Create(1);
  const std::uint64_t a = PackageTesting::CreateFilled(Set(package), 9000, 1);
  const std::uint64_t b = PackageTesting::CreateFilled(Set(package), 20000, 2);
  const std::uint64_t c = PackageTesting::CreateFilled(Set(package), 500, 3);
  RefPtr<IDataStream> held = package->OpenStream(c);
  std::uint8_t byte = 0;
  ASSERT_EQ(held->Read(&byte, 1), 1u);
  ASSERT_TRUE(package->RemoveStream(a));
  ASSERT_TRUE(package->Save());
  EXPECT_EQ(PackageTesting::ReadAll(package->OpenStream(b)), PackageTesting::Bytes(20000, 2));
  EXPECT_EQ(PackageTesting::ReadAll(held), PackageTesting::Bytes(500, 3));
}

TEST_F(PagedFilePackageTest, OpenStreamsInACompactedChildFileFollowTheirBytes) {
  RefPtr<PagedFilePackage> package = Create();
  const std::uint64_t a = PackageTesting::CreateFilled(Set(package), 6000, 1);
  const std::uint64_t b = PackageTesting::CreateFilled(Set(package), 5000, 2);
  const std::uint64_t c = PackageTesting::CreateFilled(Set(package), 8192 + 4000, 3);
  RefPtr<IDataStream> held = package->OpenStream(c);
  ASSERT_TRUE(held->Seek(0, 8192 + 1000));
  std::vector<std::uint8_t> part(1000);
  ASSERT_EQ(held->Read(part.data(), part.size()), part.size());
  ASSERT_TRUE(package->RemoveStream(a));
  EXPECT_EQ(held->GetPosition(), 8192u + 2000);
  ASSERT_EQ(held->Read(part.data(), part.size()), part.size());
  const auto expected = PackageTesting::Bytes(8192 + 4000, 3);
  EXPECT_TRUE(std::equal(part.begin(), part.end(), expected.begin() + 8192 + 2000));
  const auto rewritten = PackageTesting::Bytes(8192 + 4000, 4);
  ASSERT_TRUE(PackageTesting::WriteAll(held, rewritten));
  EXPECT_EQ(PackageTesting::ReadAll(package->OpenStream(b)), PackageTesting::Bytes(5000, 2));
  held.Reset();
  ASSERT_TRUE(package->Save());
  package.Reset();
  package = Open();
  EXPECT_EQ(PackageTesting::ReadAll(package->OpenStream(c)), rewritten);
  EXPECT_EQ(PackageTesting::ReadAll(package->OpenStream(b)), PackageTesting::Bytes(5000, 2));
}

TEST_F(PagedFilePackageTest, OpenReadOnlyReadsTheFileAndWritesNothing) {
  {
    RefPtr<PagedFilePackage> package = Create();
    PackageTesting::CreateFilled(Set(package), 9000, 1);
    ASSERT_TRUE(package->Save());
  }
  const std::vector<std::uint8_t> saved = TempDir::ReadAll(path_);
  PagedFilePackage::LoadFailure why = PagedFilePackage::LoadFailure::kCorrupt;
  RefPtr<PagedFilePackage> package = PagedFilePackage::OpenReadOnly(PackageTesting::Config(path_), &why);
  ASSERT_TRUE(package);
  EXPECT_EQ(why, PagedFilePackage::LoadFailure::kNone);
  EXPECT_TRUE(package->IsReadOnly());
  EXPECT_EQ(package->GetFileLength(), saved.size());
  EXPECT_EQ(PackageTesting::ReadAll(package->OpenStream(0)), PackageTesting::Bytes(9000, 1));
  ASSERT_TRUE(package->SetUserDataSize(5));
  EXPECT_FALSE(package->Save());
  package.Reset();
  EXPECT_EQ(TempDir::ReadAll(path_), saved);
}

TEST_F(PagedFilePackageTest, OpenReadOnlyLeavesAMissingFileMissing) {
  PagedFilePackage::LoadFailure why = PagedFilePackage::LoadFailure::kNone;
  EXPECT_FALSE(PagedFilePackage::OpenReadOnly(PackageTesting::Config(path_), &why));
  EXPECT_EQ(why, PagedFilePackage::LoadFailure::kUnavailable);
  EXPECT_FALSE(std::filesystem::exists(dir_.Path() / "package.dat"));
}

TEST_F(PagedFilePackageTest, OpenReadOnlyTellsAFileThatIsNoPackage) {
  TempDir::WriteAll(path_, std::vector<std::uint8_t>(3 * 8192, 'x'));
  PagedFilePackage::LoadFailure why = PagedFilePackage::LoadFailure::kNone;
  EXPECT_FALSE(PagedFilePackage::OpenReadOnly(PackageTesting::Config(path_), &why));
  EXPECT_EQ(why, PagedFilePackage::LoadFailure::kCorrupt);
}

}  // namespace
}  // namespace Tovrel
