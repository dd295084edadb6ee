#include "tovrel/MultiProcessTimeStamp.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "host/MutexObject.h"
#include "platform/SystemValues.h"
#include "support/ChildLauncher.h"
#include "support/ChildProcess.h"
#include "support/MutexProbe.h"
#include "support/SharedBlockProbe.h"
#include "support/TempDir.h"

namespace {

using NorvaneSDK::Util::MutexObject;
using Tovrel::MultiProcessMemory;
using Tovrel::MultiProcessTimeStamp;
using Tovrel::PlatformProcess;
using Tovrel::SystemValues;
using Tovrel::TimeStampValue;
using Tovrel::Testing::ChildLauncher;
using Tovrel::Testing::MutexProbe;
using Tovrel::Testing::SharedBlockProbe;
using Tovrel::Testing::TempDir;

// Exit codes of the child roles.
constexpr int kChildOk = 0;
constexpr int kChildWrong = 1;

std::wstring UniqueName(const std::string& stem) { return ChildLauncher::UniqueWideName(stem); }

// The stamp in the shared block `name`, read through a second holder.
TimeStampValue SharedStamp(const std::wstring& name) {
  SharedBlockProbe reader;
  reader.Open(name, sizeof(TimeStampValue));
  TimeStampValue stamp{};
  const void* block = reader.Lock(MultiProcessMemory::kInfinite);
  if (block != nullptr) std::memcpy(&stamp, block, sizeof(stamp));
  reader.Unlock();
  return stamp;
}

// Attaches to stamp argv[0], renews it, and checks that it sees no change
// itself, neither before nor after.
TOVREL_CHILD_ROLE(stamp_update) {
  if (argc < 1) return 99;
  MultiProcessTimeStamp stamp;
  stamp.Initialize(ChildLauncher::Wide(argv[0]).c_str());
  if (stamp.IsChanged()) return kChildWrong;
  stamp.UpdateTimeStamp();
  return stamp.IsChanged() ? kChildWrong : kChildOk;
}

// Attaches to stamp argv[0] and creates marker argv[1]; once marker argv[2]
// exists, expects a change exactly once.
TOVREL_CHILD_ROLE(stamp_watch) {
  if (argc < 3) return 99;
  MultiProcessTimeStamp stamp;
  stamp.Initialize(ChildLauncher::Wide(argv[0]).c_str());
  if (stamp.IsChanged()) return kChildWrong;
  ChildLauncher::Signal(argv[1]);
  if (!ChildLauncher::WaitForFile(argv[2])) return kChildWrong;
  if (!stamp.IsChanged()) return kChildWrong;
  return stamp.IsChanged() ? kChildWrong : kChildOk;
}

TEST(MultiProcessTimeStampTest, ObjectsKeepTheExportedLayout) {
  EXPECT_EQ(sizeof(MultiProcessMemory), 5 * sizeof(void*));
  EXPECT_EQ(sizeof(MultiProcessTimeStamp), 5 * sizeof(void*) + sizeof(TimeStampValue));
}

TEST(MultiProcessTimeStampTest, CreatorPutsAFreshStampIntoTheBlock) {
  const std::wstring name = UniqueName("stamp_fresh");
  const std::int64_t before = SystemValues::CalendarSeconds();
  MultiProcessTimeStamp stamp;
  ASSERT_TRUE(stamp.Initialize(name.c_str()));
  const TimeStampValue shared = SharedStamp(name);
  EXPECT_GE(shared.seconds, before);
  EXPECT_LE(shared.seconds, SystemValues::CalendarSeconds());
  EXPECT_NE(shared.counter, 0);
  EXPECT_EQ(shared.processId, SystemValues::ProcessId());
}

TEST(MultiProcessTimeStampTest, GetBytesIsZeroAfterInitialize) {
  MultiProcessTimeStamp stamp;
  ASSERT_TRUE(stamp.Initialize(UniqueName("stamp_bytes").c_str()));
  EXPECT_EQ(stamp.GetBytes(), 0u);
}

TEST(MultiProcessTimeStampTest, AttachedStampStartsLevelWithTheBlock) {
  const std::wstring name = UniqueName("stamp_level");
  MultiProcessTimeStamp a;
  MultiProcessTimeStamp b;
  ASSERT_TRUE(a.Initialize(name.c_str()));
  ASSERT_TRUE(b.Initialize(name.c_str()));
  EXPECT_FALSE(a.IsChanged());
  EXPECT_FALSE(b.IsChanged());
}

TEST(MultiProcessTimeStampTest, UpdateIsSeenOnceByTheOtherObjectAndNotByTheUpdater) {
  const std::wstring name = UniqueName("stamp_two_objects");
  MultiProcessTimeStamp a;
  MultiProcessTimeStamp b;
  ASSERT_TRUE(a.Initialize(name.c_str()));
  ASSERT_TRUE(b.Initialize(name.c_str()));
  a.UpdateTimeStamp();
  EXPECT_TRUE(b.IsChanged());
  EXPECT_FALSE(b.IsChanged());
  EXPECT_FALSE(a.IsChanged());
  b.UpdateTimeStamp();
  EXPECT_TRUE(a.IsChanged());
  EXPECT_FALSE(a.IsChanged());
  EXPECT_FALSE(b.IsChanged());
}

TEST(MultiProcessTimeStampTest, UpdateWritesTheUpdatersFreshStamp) {
  const std::wstring name = UniqueName("stamp_update_fields");
  MultiProcessTimeStamp stamp;
  ASSERT_TRUE(stamp.Initialize(name.c_str()));
  const TimeStampValue created = SharedStamp(name);
  stamp.UpdateTimeStamp();
  const TimeStampValue updated = SharedStamp(name);
  EXPECT_GE(updated.seconds, created.seconds);
  EXPECT_GT(updated.counter, created.counter);
  EXPECT_EQ(updated.processId, SystemValues::ProcessId());
}

TEST(MultiProcessTimeStampTest, UpdateInAnotherProcessIsSeenOnce) {
  const std::wstring name = UniqueName("stamp_child_updates");
  MultiProcessTimeStamp stamp;
  ASSERT_TRUE(stamp.Initialize(name.c_str()));
  auto child = ChildLauncher::Start("stamp_update", {ChildLauncher::Narrow(name)});
  ASSERT_NE(child, nullptr);
  ASSERT_EQ(ChildLauncher::Finish(*child), kChildOk);
  EXPECT_TRUE(stamp.IsChanged());
  EXPECT_FALSE(stamp.IsChanged());
  EXPECT_EQ(SharedStamp(name).processId, child->Id());
}

TEST(MultiProcessTimeStampTest, UpdateInThisProcessIsSeenOnceByAnotherProcess) {
  TempDir dir;
  const std::wstring name = UniqueName("stamp_child_watches");
  const auto attached = dir.Path() / "attached";
  const auto updated = dir.Path() / "updated";
  MultiProcessTimeStamp stamp;
  ASSERT_TRUE(stamp.Initialize(name.c_str()));
  auto child = ChildLauncher::Start("stamp_watch", {ChildLauncher::Narrow(name), attached.string(), updated.string()});
  ASSERT_NE(child, nullptr);
  ASSERT_TRUE(ChildLauncher::WaitForFile(attached, *child));
  stamp.UpdateTimeStamp();
  EXPECT_FALSE(stamp.IsChanged());
  ChildLauncher::Signal(updated);
  EXPECT_EQ(ChildLauncher::Finish(*child), kChildOk);
}

TEST(MultiProcessTimeStampTest, NeverInitializedStampTouchesNoMemory) {
  MultiProcessTimeStamp stamp;
  EXPECT_FALSE(stamp.IsChanged());
  stamp.UpdateTimeStamp();
  EXPECT_FALSE(stamp.IsChanged());
  EXPECT_EQ(stamp.Lock(0), nullptr);
}

TEST(MultiProcessTimeStampTest, InitializeAgainAttachesToTheNewName) {
  const std::wstring first = UniqueName("stamp_again_first");
  const std::wstring second = UniqueName("stamp_again_second");
  MultiProcessTimeStamp other;
  ASSERT_TRUE(other.Initialize(second.c_str()));
  MultiProcessTimeStamp stamp;
  ASSERT_TRUE(stamp.Initialize(first.c_str()));
  ASSERT_TRUE(stamp.Initialize(second.c_str()));
  EXPECT_FALSE(stamp.IsChanged());
  other.UpdateTimeStamp();
  EXPECT_TRUE(stamp.IsChanged());
}

// A holder killed with the stamp's mutex: Windows reports the mutex
// abandoned to its next owner, once, and Lock gives no address then.
bool KillAHolderOfTheMutex(const std::wstring& name, const TempDir& dir) {
  return MutexProbe::KillAHolder(name + L"_mutex", dir.Path());
}

TEST(MultiProcessTimeStampTest, KilledHolderOfTheMutexNeitherBlocksNorKeepsIt) {
  TempDir dir;
  const std::wstring name = UniqueName("stamp_killed_holder");
  MultiProcessTimeStamp stamp;
  ASSERT_TRUE(stamp.Initialize(name.c_str()));
  ASSERT_TRUE(KillAHolderOfTheMutex(name, dir));
  EXPECT_FALSE(stamp.IsChanged());
  EXPECT_EQ(MutexProbe::AcquireFromAnotherThread(name + L"_mutex", 0), MutexObject::kWaitObject0);
}

TEST(MultiProcessTimeStampTest, NoNewsAndNoRenewalIsLostToAHolderThatDiedWithTheMutex) {
  TempDir dir;
  const std::wstring name = UniqueName("stamp_after_death");
  MultiProcessTimeStamp reader;
  MultiProcessTimeStamp writer;
  ASSERT_TRUE(reader.Initialize(name.c_str()));
  ASSERT_TRUE(writer.Initialize(name.c_str()));
  writer.UpdateTimeStamp();
  ASSERT_TRUE(KillAHolderOfTheMutex(name, dir));
  EXPECT_TRUE(reader.IsChanged()) << "the news went with the dead holder";
  EXPECT_FALSE(reader.IsChanged());
  ASSERT_TRUE(KillAHolderOfTheMutex(name, dir));
  writer.UpdateTimeStamp();
  EXPECT_TRUE(reader.IsChanged()) << "the renewal never reached the block";
  EXPECT_FALSE(writer.IsChanged());
  EXPECT_EQ(MutexProbe::AcquireFromAnotherThread(name + L"_mutex", 0), MutexObject::kWaitObject0);
}

}  // namespace
