#include "effectcache/SearchSnapshot.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "effectcache/CacheFileLock.h"
#include "effectcache/EffectTable.h"
#include "package/DirectStreamReader.h"
#include "package/PagedFilePackage.h"
#include "pagefile/SavedImages.h"
#include "platform/PlatformFile.h"
#include "support/PackageTesting.h"
#include "support/TempDir.h"

namespace Tovrel {
namespace {

using Testing::PackageTesting;
using Result = SearchSnapshot::Result;

// A package of four streams (two of whole pages and a tail, two of a tail
// alone) named "a" to "d" in an index, saved; a cache of four pages, so
// that a save's writes reach the file before it ends.
class SearchSnapshotTest : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = dir_.File("cache.dat");
    package_ = new PagedFilePackage(PackageTesting::Config(path_, 4));
    ASSERT_TRUE(package_->Create());
    set_ = package_.Get();
    std::vector<EffectTable::Change> changes;
    for (std::size_t i = 0; i < kSizes.size(); ++i) {
      ids_.push_back(PackageTesting::CreateFilled(set_, kSizes[i], Seed(i)));
      EffectRecord record{};
      record.streamId = ids_.back();
      changes.push_back(EffectTable::Change{Name(i), record, false});
    }
    ASSERT_TRUE(package_->Save());
    index_.Apply(std::move(changes));
    lock_.reset(new CacheFileLock(path_));
    {
      CacheFileLock::Hold hold(*lock_);
      lock_->WillWrite();
    }
    known_ = lock_->LastRelease();
    ASSERT_EQ(known_ % 2, 0u);
  }

  static std::string Name(std::size_t i) { return std::string(1, static_cast<char>('a' + i)); }
  static std::uint32_t Seed(std::size_t i) { return static_cast<std::uint32_t>(i + 1); }

  // Every name reads as saved, with its record.
  void ExpectSaved(SearchSnapshot& snapshot, const char* when) {
    for (std::size_t i = 0; i < kSizes.size(); ++i) {
      std::vector<std::uint8_t> bytes;
      EffectRecord record{};
      ASSERT_EQ(snapshot.Read(Name(i), *lock_, bytes, &record), Result::kOk) << Name(i) << " " << when;
      EXPECT_EQ(bytes, PackageTesting::Bytes(kSizes[i], Seed(i))) << Name(i) << " " << when;
      EXPECT_EQ(record.streamId, ids_[i]);
    }
  }

  // The bytes the file holds now where stream `i` lay when saved.
  std::vector<std::uint8_t> InFile(const std::vector<DirectStreamReader::Run>& runs) {
    FileHandle* file = PlatformFile::Open(path_.c_str(), "rb");
    EXPECT_NE(file, nullptr);
    std::vector<std::uint8_t> bytes;
    for (const DirectStreamReader::Run& run : runs) {
      std::vector<std::uint8_t> part(run.size);
      EXPECT_EQ(PlatformFile::ReadAt(file, part.data(), part.size(), run.offset), static_cast<std::int64_t>(run.size));
      bytes.insert(bytes.end(), part.begin(), part.end());
    }
    PlatformFile::Close(file);
    return bytes;
  }

  const std::vector<std::uint64_t> kSizes = {20000, 9000, 3000, 100};
  Testing::TempDir dir_;
  std::wstring path_;
  RefPtr<PagedFilePackage> package_;
  RefPtr<IDataStreamSet> set_;
  std::vector<std::uint64_t> ids_;
  EffectTable index_;
  std::unique_ptr<CacheFileLock> lock_;
  std::uint64_t known_ = 0;
};

TEST_F(SearchSnapshotTest, ReadsGiveTheSavedBytesWhileThisObjectsSaveOverwritesThem) {
  std::unique_ptr<SearchSnapshot> snapshot = SearchSnapshot::Build(*package_, index_, path_.c_str(), known_);
  ASSERT_TRUE(snapshot);
  EXPECT_EQ(snapshot->Size(), kSizes.size());
  ExpectSaved(*snapshot, "before any change");
  std::vector<DirectStreamReader::Run> runsOfA;
  ASSERT_EQ(DirectStreamReader::Locate(*package_, ids_[0], 1u << 20, runsOfA), DirectStreamReader::Result::kOk);

  const std::shared_ptr<SavedImages> images = snapshot->Images();
  ASSERT_TRUE(package_->GetPageCache()->KeepSavedImages(images));
  ASSERT_TRUE(snapshot->Protect(lock_->Observe()));
  {
    CacheFileLock::Hold hold(*lock_);
    lock_->WillWrite();
    // The pages "a" and "d" free are reused first in, first out, and the
    // small cache writes them out before the save ends.
    set_->RemoveStream(ids_[0]);
    set_->RemoveStream(ids_[3]);
    PackageTesting::CreateFilled(set_, 24000, 77);
    PackageTesting::CreateFilled(set_, 100, 78);
    PackageTesting::CreateFilled(set_, 40000, 79);
    ASSERT_NE(InFile(runsOfA), PackageTesting::Bytes(kSizes[0], Seed(0))) << "the save overwrote none of a's pages";
    EXPECT_GT(images->Count(), 0u);
    ExpectSaved(*snapshot, "with the save's writes in the file");
    ASSERT_TRUE(package_->Save());
    ExpectSaved(*snapshot, "with the save complete and the lock still held");
  }
  ExpectSaved(*snapshot, "after the save's hold");
  // The next change of the file may reuse what the save freed, unjournaled.
  PackageTesting::CreateFilled(set_, 40000, 80);
  ASSERT_TRUE(package_->Save());
  std::vector<std::uint8_t> bytes;
  EffectRecord record{};
  EXPECT_EQ(snapshot->Read("b", *lock_, bytes, &record), Result::kDeclined);
  EXPECT_FALSE(images->Trusted());
}

TEST_F(SearchSnapshotTest, AnotherHoldersWritesMakeEveryReadDecline) {
  std::unique_ptr<SearchSnapshot> snapshot = SearchSnapshot::Build(*package_, index_, path_.c_str(), known_);
  ASSERT_TRUE(snapshot);
  ExpectSaved(*snapshot, "before another holder");
  CacheFileLock other(path_);
  std::vector<std::uint8_t> bytes;
  EffectRecord record{};
  {
    CacheFileLock::Hold hold(other);
    other.WillWrite();
    EXPECT_EQ(snapshot->Read("a", *lock_, bytes, &record), Result::kDeclined);
  }
  EXPECT_EQ(snapshot->Read("a", *lock_, bytes, &record), Result::kDeclined);
  // Nor can this object's own save protect it now.
  EXPECT_FALSE(snapshot->Protect(lock_->Observe()));
  EXPECT_EQ(snapshot->Read("c", *lock_, bytes, &record), Result::kDeclined);
}

TEST_F(SearchSnapshotTest, ANameItDoesNotHoldIsMissingAndAModifiedPackageGivesNone) {
  std::unique_ptr<SearchSnapshot> snapshot = SearchSnapshot::Build(*package_, index_, path_.c_str(), known_);
  ASSERT_TRUE(snapshot);
  std::vector<std::uint8_t> bytes;
  EffectRecord record{};
  EXPECT_EQ(snapshot->Read("e", *lock_, bytes, &record), Result::kMissing);
  EXPECT_EQ(snapshot->Read("", *lock_, bytes, &record), Result::kMissing);
  PackageTesting::CreateFilled(set_, 10, 90);
  EXPECT_FALSE(SearchSnapshot::Build(*package_, index_, path_.c_str(), known_));
}

TEST_F(SearchSnapshotTest, ASupersededNameIsMissingAndTheOthersStillRead) {
  std::unique_ptr<SearchSnapshot> snapshot = SearchSnapshot::Build(*package_, index_, path_.c_str(), known_);
  ASSERT_TRUE(snapshot);
  snapshot->Supersede("b");
  snapshot->Supersede("x");  // a name it does not hold changes nothing
  std::vector<std::uint8_t> bytes;
  EffectRecord record{};
  EXPECT_EQ(snapshot->Read("b", *lock_, bytes, &record), Result::kMissing);
  for (std::size_t i : {0u, 2u, 3u}) {
    ASSERT_EQ(snapshot->Read(Name(i), *lock_, bytes, &record), Result::kOk) << Name(i);
    EXPECT_EQ(bytes, PackageTesting::Bytes(kSizes[i], Seed(i)));
  }
  EXPECT_EQ(snapshot->UsedNames(), (std::vector<std::string>{"a", "c", "d"}));
}

}  // namespace
}  // namespace Tovrel
