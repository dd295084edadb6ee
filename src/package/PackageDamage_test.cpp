// Packages whose tables were damaged in ways the loader lets pass: pages
// given to two owners, tails that the child files' lists and the tail
// records disagree on, chains that run into free pages or past the table.
// The damaged streams and child files are found unsound; removing them and
// compacting are refused with FileDataCorruptException before anything
// changes, and no operation (removals, compaction, new streams, saves)
// changes a byte of any stream but the ones it removes. A head chain page
// marked free fails the load.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <set>
#include <vector>

#include "package/PagedFilePackage.h"
#include "pagefile/FileDataCorruptException.h"
#include "pagefile/PageGeometry.h"
#include "support/InstalledFileSystem.h"
#include "support/PackagePatch.h"
#include "support/PackageTesting.h"

namespace Tovrel {
namespace {

using Testing::PackagePatch;
using Testing::PackageTesting;
using Contents = std::map<std::uint64_t, std::vector<std::uint8_t>>;
using Ids = std::set<std::uint64_t>;

constexpr const wchar_t* kPath = L"damage.dat";

// Streams 0..14: whole pages and tails; child file 0 holds the tails of
// streams 0, 1, 2 and 4..11, child file 1 those of 12, 13 and 14 (7,000,
// 7,000 and 2,000 bytes, in that order). Stream 3 is one page, no tail.
const std::vector<std::uint64_t> kSizes = {3 * kPageSize + 100, 2 * kPageSize + 5000, 3000, kPageSize, 7000, 7000,
                                           7000, 7000, 7000, 7000, 7000, 7000, 7000, 7000, 2 * kPageSize + 2000};

class PackageDamageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    RefPtr<PagedFilePackage> package(new PagedFilePackage(PackageTesting::Config(kPath, 8)));
    package->Create();
    for (std::size_t i = 0; i < kSizes.size(); ++i) {
      const auto seed = static_cast<std::uint32_t>(i + 1);
      saved_[PackageTesting::CreateFilled(Set(package), kSizes[i], seed)] = PackageTesting::Bytes(kSizes[i], seed);
    }
    // Four free pages at the end of the table.
    const std::uint64_t gone = package->CreateStream(4 * kPageSize);
    firstFreePage_ = package->GetStreamTable().Find(gone)->firstPage;
    ASSERT_TRUE(package->RemoveStream(gone));
    ASSERT_TRUE(package->Save());
    ASSERT_EQ(package->GetChildFileTable().GetChildFileCount(), 2u);
    ASSERT_EQ(*package->GetChildFileTable().TailsOf(1), (std::vector<std::uint64_t>{12, 13, 14}));
  }

  static RefPtr<IDataStreamSet> Set(const RefPtr<PagedFilePackage>& package) {
    return RefPtr<IDataStreamSet>(package.Get());
  }
  RefPtr<PagedFilePackage> Open() {
    RefPtr<PagedFilePackage> package(new PagedFilePackage(PackageTesting::Config(kPath, 8)));
    return package->Load() ? package : RefPtr<PagedFilePackage>();
  }
  void Damage(const std::function<void(PackagePatch&)>& change) {
    PackagePatch patch(files_.Memory().ReadAll(kPath));
    change(patch);
    files_.Memory().WriteAll(kPath, patch.Bytes());
  }
  // The place of a stream's tail record (stream 3 has none).
  static std::uint64_t TailRecord(std::uint64_t stream) { return stream < 3 ? stream : stream - 1; }

  // Every stream of the package that opens, with its bytes.
  static Contents Readable(const RefPtr<PagedFilePackage>& package) {
    Contents contents;
    for (std::uint64_t id : PackageTesting::Identifiers(Set(package))) {
      try {
        RefPtr<IDataStream> stream = package->OpenStream(id);
        if (stream) contents[id] = PackageTesting::ReadAll(stream);
      } catch (const FileDataCorruptException&) {
        // A stream whose tail does not lie in its child file does not open.
      }
    }
    return contents;
  }
  static void ExpectHolds(const RefPtr<PagedFilePackage>& package, const Contents& contents, const Ids& skipped) {
    for (const auto& stream : contents) {
      if (skipped.count(stream.first) != 0) continue;
      RefPtr<IDataStream> opened = package->OpenStream(stream.first);
      ASSERT_TRUE(opened) << "stream " << stream.first;
      EXPECT_EQ(PackageTesting::ReadAll(opened), stream.second) << "stream " << stream.first;
    }
  }

  static Ids Unsound(const RefPtr<PagedFilePackage>& package) {
    const std::vector<std::uint64_t>& found = package->GetSoundness().GetUnsoundStreams();
    return Ids(found.begin(), found.end());
  }

  // Opens the damaged package and puts it through every operation that
  // could free, move or reuse pages. `unsound` are the streams its
  // damage makes unsound; `reused` those whose chains run into pages the
  // table marks free, which new streams may take (a new stream on such a
  // page is unsound once the package is loaded again).
  void Exercise(const Ids& unsound, const Ids& reused = {}) {
    RefPtr<PagedFilePackage> package = Open();
    ASSERT_TRUE(package);
    ASSERT_EQ(Unsound(package), unsound);
    Contents contents = Readable(package);
    RefusesCompaction(package, contents);
    RefusesRemovals(package, unsound, contents);
    const Contents added = AddStreams(package);
    package = Open();
    ASSERT_TRUE(package);
    ExpectHolds(package, contents, reused);
    ExpectHolds(package, added, {});
    const Ids now = Unsound(package);
    for (std::uint64_t id : now) {
      EXPECT_TRUE(unsound.count(id) != 0 || (!reused.empty() && added.count(id) != 0)) << "stream " << id;
    }
    contents.insert(added.begin(), added.end());
    RemoveSoundStreams(package, now, reused, contents);
  }

  void RefusesCompaction(const RefPtr<PagedFilePackage>& package, const Contents& contents) {
    const std::vector<std::uint8_t> file = files_.Memory().ReadAll(kPath);
    EXPECT_THROW(package->Compact(nullptr), FileDataCorruptException);
    EXPECT_FALSE(package->IsBroken());
    EXPECT_EQ(files_.Memory().ReadAll(kPath), file);
    EXPECT_FALSE(files_.Memory().Exists(L"damage.dat-journal"));
    ExpectHolds(package, contents, {});
  }

  static void RefusesRemovals(const RefPtr<PagedFilePackage>& package, const Ids& unsound, const Contents& contents) {
    for (std::uint64_t id : unsound) {
      EXPECT_THROW(package->RemoveStream(id), FileDataCorruptException) << "stream " << id;
      EXPECT_FALSE(package->IsBroken());
      EXPECT_FALSE(package->IsModified());
    }
    ExpectHolds(package, contents, {});
  }

  // New streams of whole pages and tails, written and saved; no tail goes
  // into an unsound child file.
  static Contents AddStreams(const RefPtr<PagedFilePackage>& package) {
    Contents added;
    for (std::uint64_t size : {5 * kPageSize + 3000, kPageSize - 2192, 2 * kPageSize, 4 * kPageSize + 7232}) {
      const auto seed = static_cast<std::uint32_t>(100 + added.size());
      const std::uint64_t id = PackageTesting::CreateFilled(Set(package), size, seed);
      EXPECT_NE(id, IDataStreamSet::kNoStream);
      added[id] = PackageTesting::Bytes(size, seed);
      const StreamTailRecord* tail = package->GetChildFileTable().FindTail(id);
      if (tail != nullptr) {
        EXPECT_TRUE(package->GetSoundness().IsChildFileSound(tail->childFileIdentifier));
      }
    }
    EXPECT_TRUE(package->Save());
    return added;
  }

  // Every sound stream is removed in turn; the others keep their bytes.
  void RemoveSoundStreams(RefPtr<PagedFilePackage>& package, const Ids& unsound, const Ids& reused,
                          Contents contents) {
    const std::vector<std::uint64_t> ids = PackageTesting::Identifiers(Set(package));
    for (std::uint64_t id : ids) {
      if (unsound.count(id) != 0) continue;
      EXPECT_TRUE(package->RemoveStream(id));
      contents.erase(id);
      ExpectHolds(package, contents, reused);
    }
    EXPECT_TRUE(package->Save());
    package = Open();
    ASSERT_TRUE(package);
    EXPECT_EQ(package->GetNumberOfStreams(), unsound.size());
    ExpectHolds(package, contents, reused);
  }

  Testing::InstalledFileSystem files_;
  Contents saved_;
  std::uint64_t firstFreePage_ = 0;
};

TEST_F(PackageDamageTest, TheUndamagedPackageIsSoundAndCompacts) {
  RefPtr<PagedFilePackage> package = Open();
  ASSERT_TRUE(package);
  EXPECT_TRUE(package->GetSoundness().IsSound());
  EXPECT_TRUE(package->Compact(nullptr));
  ExpectHolds(package, saved_, {});
}

TEST_F(PackageDamageTest, TwoStreamsSharingTheirFirstPage) {
  Damage([](PackagePatch& p) {
    p.Set(p.Stream(1, PackagePatch::kFirstPage), p.Get(p.Stream(0, PackagePatch::kFirstPage)));
  });
  Exercise({0, 1});
}

TEST_F(PackageDamageTest, AStreamOnAPageOfAChildFile) {
  // Stream 3's one page becomes child file 1's last page: the child file
  // and every stream with a tail in it are unsound.
  Damage([](PackagePatch& p) {
    p.Set(p.Stream(3, PackagePatch::kFirstPage), p.Get(p.ChildFile(1, PackagePatch::kChildPage0 + 7)));
  });
  Exercise({3, 12, 13, 14});
}

TEST_F(PackageDamageTest, AListedTailWithoutItsRecordAndARecordThatNoListHolds) {
  // One byte of child file 1's list changed (0x20 in the fourth byte of
  // its second entry): it lists a stream that has no tail record where it
  // listed stream 13, whose record no list holds any more. Compaction
  // would look for the missing record.
  Damage([](PackagePatch& p) { p.Set(p.ListedTail(1, 1), 0x20000000 + 13); });
  Exercise({12, 13, 14});
}

TEST_F(PackageDamageTest, AChainRunningIntoAFreePage) {
  Damage([this](PackagePatch& p) { p.Set(p.Link(p.Get(p.Stream(1, PackagePatch::kFirstPage))), firstFreePage_); });
  Exercise({1}, {1});
}

TEST_F(PackageDamageTest, AChainStartingPastTheTable) {
  Damage([](PackagePatch& p) {
    const std::uint64_t tableLength = p.Get(p.Link(kFirstPageId) - 8);
    p.Set(p.Stream(3, PackagePatch::kFirstPage), kFirstPageId + tableLength + 100);
  });
  Exercise({3});
}

TEST_F(PackageDamageTest, ATailRecordWhoseOffsetDisagreesWithItsChildFilesListIsNeverCompacted) {
  // A byte changed in a cache file's tail record: stream 13's tail said
  // to lie 1,000 bytes further on than child file 1's list puts it.
  Damage([](PackagePatch& p) {
    const std::uint64_t offset = p.Tail(TailRecord(13), PackagePatch::kTailOffset);
    p.Set(offset, p.Get(offset) + 1000);
  });
  Exercise({12, 13, 14});
}

TEST_F(PackageDamageTest, AHeadChainPageMarkedFreeFailsTheLoadAndNothingIsWritten) {
  Damage([](PackagePatch& p) { p.Set(p.Link(kFirstPageId), IPageAllocator::kFreeLink); });
  const std::vector<std::uint8_t> file = files_.Memory().ReadAll(kPath);
  RefPtr<PagedFilePackage> package(new PagedFilePackage(PackageTesting::Config(kPath, 8)));
  EXPECT_THROW(package->Load(), FileDataCorruptException);
  package->Close();
  EXPECT_FALSE(package->Reload());
  package.Reset();
  EXPECT_EQ(files_.Memory().ReadAll(kPath), file);
  EXPECT_FALSE(files_.Memory().Exists(L"damage.dat-journal"));
}

TEST_F(PackageDamageTest, AnUnsoundStreamOpensForReadingOnly) {
  Damage([](PackagePatch& p) {
    p.Set(p.Stream(1, PackagePatch::kFirstPage), p.Get(p.Stream(0, PackagePatch::kFirstPage)));
  });
  RefPtr<PagedFilePackage> package = Open();
  ASSERT_TRUE(package);
  RefPtr<IDataStream> stream = package->OpenStream(0);
  ASSERT_TRUE(stream);
  EXPECT_EQ(PackageTesting::ReadAll(stream), saved_[0]);
  const std::vector<std::uint8_t> other = PackageTesting::Bytes(kSizes[0], 77);
  EXPECT_TRUE(stream->Seek(0, 0));
  EXPECT_EQ(stream->Write(other.data(), other.size()), 0u);
  EXPECT_EQ(PackageTesting::ReadAll(stream), saved_[0]);
  EXPECT_TRUE(PackageTesting::WriteAll(package->OpenStream(2), PackageTesting::Bytes(kSizes[2], 78)));
}

}  // namespace
}  // namespace Tovrel
