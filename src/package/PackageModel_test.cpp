// A seeded random run of package operations, checked after every step
// against a plain in-memory model of the streams.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <set>

#include "package/PagedFilePackage.h"
#include "support/InstalledFileSystem.h"
#include "support/PackageTesting.h"
#include "support/TempDir.h"
#include "tovrel/FilePackage.h"

namespace Tovrel {
namespace {

using Testing::PackageTesting;
using Testing::TempDir;

constexpr int kOperations = 20000;
constexpr std::size_t kMostStreams = 40;
constexpr std::size_t kMostHeld = 4;

struct RunSettings {
  std::uint32_t seed;
  std::uint64_t cachePages;
  std::uint64_t streamLimit;
  bool inMemory;  // on a MemoryFileSystem instead of the disk
};

std::ostream& operator<<(std::ostream& out, const RunSettings& s) {
  return out << "seed" << s.seed << "_cache" << s.cachePages << "_limit" << s.streamLimit
             << (s.inMemory ? "_memory" : "_disk");
}

class PackageModelTest : public ::testing::TestWithParam<RunSettings> {
 protected:
  void SetUp() override {
    if (GetParam().inMemory) memory_.reset(new Testing::InstalledFileSystem);
    random_.seed(GetParam().seed);
    package_ = CreateFilePackage(Config());
    ASSERT_TRUE(package_);
  }

  PagedFilePackageConfig Config() const {
    return PackageTesting::Config(path_, GetParam().cachePages, GetParam().streamLimit);
  }
  PagedFilePackage& Package() const { return *static_cast<PagedFilePackage*>(package_.Get()); }
  std::uint64_t Below(std::uint64_t n) { return n == 0 ? 0 : random_() % n; }
  std::vector<std::uint8_t> Fresh(std::uint64_t size) {
    return PackageTesting::Bytes(size, static_cast<std::uint32_t>(random_()));
  }
  // A stream of the model, or kNoStream when there is none.
  std::uint64_t AnyStream() {
    if (model_.empty()) return IDataStreamSet::kNoStream;
    auto at = model_.begin();
    std::advance(at, static_cast<std::ptrdiff_t>(Below(model_.size())));
    return at->first;
  }
  RefPtr<IDataStream> Stream(std::uint64_t id) {
    const auto held = held_.find(id);
    return held != held_.end() ? held->second : package_->OpenStream(id);
  }

  std::uint64_t CrossingTailSize();
  std::uint64_t NewStreamSize();
  bool CreationRefused(std::uint64_t size) const;
  void Create();
  void Write();
  void Read();
  void Seek();
  void Remove();
  void Hold();
  void Save();
  void Reopen();
  void Reload();
  void ChangeUserData();
  void Step(int kind);
  void CheckDirectory() const;
  void CheckAllBytes();

  std::unique_ptr<Testing::InstalledFileSystem> memory_;
  TempDir dir_;
  std::wstring path_ = dir_.File("model.dat");
  std::mt19937 random_;
  RefPtr<IDataStreamSet> package_;
  std::map<std::uint64_t, std::vector<std::uint8_t>> model_;
  std::vector<std::uint8_t> userData_;
  std::map<std::uint64_t, RefPtr<IDataStream>> held_;
  // Streams written since the page cache last reached the file: a reload
  // may give back any mix of their old and new bytes.
  std::set<std::uint64_t> writtenSinceFlush_;
  bool tablesChanged_ = false;
};

std::uint64_t PackageModelTest::CrossingTailSize() {
  // A tail that runs past a page end of the child file that will take it.
  const ChildFileTable& children = Package().GetChildFileTable();
  for (std::uint64_t id = 0; id < children.GetChildFileCount(); ++id) {
    const ChildFileRecord* child = children.FindChildFile(id);
    if (child == nullptr) continue;
    const std::uint64_t inPage = (kChildFileSize - child->freeBytes) % kPageSize;
    const std::uint64_t least = kPageSize - inPage + 1;
    if (inPage != 0 && least < kPageSize && least <= child->freeBytes) {
      const std::uint64_t most = std::min<std::uint64_t>(kPageSize - 1, child->freeBytes);
      return least + Below(most - least + 1);
    }
  }
  return 4000 + Below(4192);
}

std::uint64_t PackageModelTest::NewStreamSize() {
  const std::uint64_t kind = Below(100);
  if (kind < 30) return Below(8192);
  if (kind < 55) {
    const std::uint64_t pages = Below(100) < 85 ? Below(13) : Below(37);
    const std::int64_t size = static_cast<std::int64_t>(pages * kPageSize) + static_cast<std::int64_t>(Below(7)) - 3;
    return static_cast<std::uint64_t>(std::max<std::int64_t>(0, size));
  }
  if (kind < 75) return Below(4) * kPageSize + CrossingTailSize();
  return Below(300001);
}

bool PackageModelTest::CreationRefused(std::uint64_t size) const {
  if (model_.size() >= GetParam().streamLimit) return true;
  const std::uint64_t tail = size % kPageSize;
  const ChildFileTable& children = Package().GetChildFileTable();
  return tail != 0 && children.FindRoom(tail) == ChildFileTable::kNone &&
         children.GetChildFileCount() >= ChildFileTable::ChildFileLimit(GetParam().streamLimit);
}

void PackageModelTest::Create() {
  if (model_.size() >= kMostStreams) return Remove();
  const std::uint64_t size = NewStreamSize();
  const bool refused = CreationRefused(size);
  std::uint64_t expectedId = 0;
  while (model_.count(expectedId) != 0) ++expectedId;
  const std::uint64_t id = package_->CreateStream(size);
  if (refused) {
    ASSERT_EQ(id, IDataStreamSet::kNoStream);
    return;
  }
  ASSERT_EQ(id, expectedId) << "size " << size;
  tablesChanged_ = true;
  model_[id] = Fresh(size);
  if (size == 0) {
    EXPECT_FALSE(package_->OpenStream(id));
    return;
  }
  ASSERT_TRUE(PackageTesting::WriteAll(package_->OpenStream(id), model_[id]));
  writtenSinceFlush_.insert(id);
}

void PackageModelTest::Write() {
  const std::uint64_t id = AnyStream();
  if (id == IDataStreamSet::kNoStream || model_[id].empty()) return Create();
  std::vector<std::uint8_t>& bytes = model_[id];
  const std::uint64_t at = Below(bytes.size() + 1);
  const auto data = Fresh(Below(20000));
  RefPtr<IDataStream> stream = Stream(id);
  ASSERT_TRUE(stream->Seek(0, static_cast<std::int32_t>(at)));
  const std::uint64_t expected = std::min<std::uint64_t>(data.size(), bytes.size() - at);
  ASSERT_EQ(stream->Write(data.data(), data.size()), expected);
  ASSERT_EQ(stream->GetPosition(), at + expected);
  std::copy(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(expected),
            bytes.begin() + static_cast<std::ptrdiff_t>(at));
  writtenSinceFlush_.insert(id);
}

void PackageModelTest::Read() {
  const std::uint64_t id = AnyStream();
  if (id == IDataStreamSet::kNoStream || model_[id].empty()) return Create();
  const std::vector<std::uint8_t>& bytes = model_[id];
  const std::uint64_t at = Below(bytes.size() + 1);
  std::vector<std::uint8_t> back(Below(30000));
  RefPtr<IDataStream> stream = Stream(id);
  ASSERT_EQ(stream->GetSize(), bytes.size());
  ASSERT_TRUE(stream->Seek(0, static_cast<std::int32_t>(at)));
  const std::uint64_t expected = std::min<std::uint64_t>(back.size(), bytes.size() - at);
  ASSERT_EQ(stream->Read(back.data(), back.size()), expected);
  ASSERT_TRUE(std::equal(back.begin(), back.begin() + static_cast<std::ptrdiff_t>(expected),
                         bytes.begin() + static_cast<std::ptrdiff_t>(at)))
      << "stream " << id << " at " << at;
}

void PackageModelTest::Seek() {
  const std::uint64_t id = AnyStream();
  if (id == IDataStreamSet::kNoStream || model_[id].empty()) return Create();
  RefPtr<IDataStream> stream = Stream(id);
  const auto size = static_cast<std::int64_t>(model_[id].size());
  const auto before = static_cast<std::int64_t>(stream->GetPosition());
  const auto origin = static_cast<std::uint32_t>(Below(3));
  const auto offset = static_cast<std::int32_t>(static_cast<std::int64_t>(Below(2 * size + 3)) - size - 1);
  const std::int64_t base = origin == 0 ? 0 : origin == 1 ? before : size;
  const std::int64_t target = base + offset;
  const bool inside = target >= 0 && target <= size;
  ASSERT_EQ(stream->Seek(origin, offset), inside);
  ASSERT_EQ(static_cast<std::int64_t>(stream->GetPosition()), inside ? target : before);
  if (inside && target < size) {
    std::uint8_t byte = 0;
    ASSERT_EQ(stream->Read(&byte, 1), 1u);
    ASSERT_EQ(byte, model_[id][static_cast<std::size_t>(target)]);
  }
}

void PackageModelTest::Remove() {
  const std::uint64_t id = AnyStream();
  if (id == IDataStreamSet::kNoStream) return;
  if (held_.count(id) != 0) {
    ASSERT_FALSE(package_->RemoveStream(id));
    return;
  }
  ASSERT_TRUE(package_->RemoveStream(id));
  ASSERT_FALSE(package_->OpenStream(id));
  model_.erase(id);
  writtenSinceFlush_.erase(id);
  tablesChanged_ = true;
}

void PackageModelTest::Hold() {
  if (held_.size() >= kMostHeld || Below(2) == 0) {
    if (!held_.empty()) held_.erase(held_.begin());
    return;
  }
  const std::uint64_t id = AnyStream();
  if (id == IDataStreamSet::kNoStream || model_[id].empty()) return;
  RefPtr<IDataStream> stream = package_->OpenStream(id);
  ASSERT_TRUE(stream);
  ASSERT_EQ(package_->OpenStream(id).Get(), stream.Get());
  held_[id] = stream;
}

void PackageModelTest::Save() {
  ASSERT_TRUE(package_->Save());
  if (tablesChanged_) writtenSinceFlush_.clear();
  tablesChanged_ = false;
}

void PackageModelTest::Reopen() {
  held_.clear();
  package_.Reset();
  package_ = OpenFilePackage(Config());
  ASSERT_TRUE(package_);
  writtenSinceFlush_.clear();
  tablesChanged_ = false;
  CheckAllBytes();
}

void PackageModelTest::Reload() {
  if (!held_.empty()) {
    ASSERT_FALSE(package_->Reload());
    return;
  }
  if (tablesChanged_) Save();
  ASSERT_TRUE(package_->Reload());
  for (std::uint64_t id : writtenSinceFlush_) {
    const std::vector<std::uint8_t> back = PackageTesting::ReadAll(package_->OpenStream(id));
    ASSERT_EQ(back.size(), model_[id].size());
    model_[id] = back;
  }
  writtenSinceFlush_.clear();
  CheckAllBytes();
}

void PackageModelTest::ChangeUserData() {
  userData_ = Fresh(Below(3000));
  ASSERT_TRUE(package_->SetUserDataSize(userData_.size()));
  if (!userData_.empty()) std::copy(userData_.begin(), userData_.end(), package_->GetUserData());
  tablesChanged_ = true;
}

void PackageModelTest::CheckDirectory() const {
  ASSERT_EQ(package_->GetNumberOfStreams(), model_.size());
  std::uint64_t total = 0;
  std::uint64_t index = 0;
  for (const auto& stream : model_) {
    ASSERT_EQ(package_->GetStreamIdentifier(index++), stream.first);
    total += stream.second.size();
  }
  ASSERT_EQ(package_->GetTotalStreamSize(), total);
  ASSERT_EQ(package_->GetUserDataSize(), userData_.size());
  const IDataStreamSet& reader = *package_;
  ASSERT_TRUE(userData_.empty() || std::equal(userData_.begin(), userData_.end(), reader.GetUserData()));
}

void PackageModelTest::CheckAllBytes() {
  for (const auto& stream : model_) {
    if (stream.second.empty()) continue;
    ASSERT_EQ(PackageTesting::ReadAll(Stream(stream.first)), stream.second) << "stream " << stream.first;
  }
}

void PackageModelTest::Step(int kind) {
  if (kind < 14) return Create();
  if (kind < 36) return Write();
  if (kind < 58) return Read();
  if (kind < 70) return Seek();
  if (kind < 80) return Remove();
  if (kind < 90) return Hold();
  if (kind < 94) return Save();
  if (kind < 95) return Reopen();
  if (kind < 97) return Reload();
  return ChangeUserData();
}

TEST_P(PackageModelTest, EveryStepAgreesWithTheModel) {
  for (int step = 0; step < kOperations; ++step) {
    const int kind = static_cast<int>(Below(100));
    Step(kind);
    ASSERT_FALSE(HasFatalFailure()) << "step " << step << " kind " << kind;
    CheckDirectory();
    ASSERT_FALSE(HasFatalFailure()) << "step " << step << " kind " << kind;
    if (step % 1000 == 999) {
      CheckAllBytes();
      ASSERT_FALSE(HasFatalFailure()) << "step " << step;
    }
  }
  Reopen();
}

INSTANTIATE_TEST_SUITE_P(Seeds, PackageModelTest,
                         ::testing::Values(RunSettings{1, 12, 65535, true}, RunSettings{2, 64, 65535, true},
                                           RunSettings{3, 16, 20, false}, RunSettings{4, 24, 65535, true}),
                         [](const ::testing::TestParamInfo<RunSettings>& info) {
                           std::ostringstream name;
                           name << info.param;
                           return name.str();
                         });

}  // namespace
}  // namespace Tovrel
