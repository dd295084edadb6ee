#include "tovrel/FilePackage.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <memory>

#include "package/PagedFilePackage.h"
#include "support/PackageTesting.h"
#include "support/TempDir.h"
#include "tovrel/VertexNormalsControl.h"

namespace Tovrel {
namespace {

using Testing::PackageTesting;
using Testing::TempDir;

class FilePackageTest : public ::testing::Test {
 protected:
  TempDir dir_;
  std::wstring path_ = dir_.File("factory.dat");
};

TEST_F(FilePackageTest, ACacheOfZeroPagesHoldsOne) {
  RefPtr<IDataStreamSet> package = CreateFilePackage(PackageTesting::Config(path_, 0));
  ASSERT_TRUE(package);
  EXPECT_EQ(static_cast<PagedFilePackage*>(package.Get())->GetPageCache()->GetCapacity(), 1u);
  const std::uint64_t id = PackageTesting::CreateFilled(package, 30000, 3);
  ASSERT_TRUE(package->Save());
  package = OpenFilePackage(PackageTesting::Config(path_, 0));
  ASSERT_TRUE(package);
  EXPECT_EQ(static_cast<PagedFilePackage*>(package.Get())->GetPageCache()->GetCapacity(), 1u);
  EXPECT_EQ(PackageTesting::ReadAll(package->OpenStream(id)), PackageTesting::Bytes(30000, 3));
}

TEST_F(FilePackageTest, ThePathMayBeFreedRightAfterTheCall) {
  auto path = std::make_unique<std::wstring>(path_);
  RefPtr<IDataStreamSet> package = CreateFilePackage(PackageTesting::Config(*path));
  *path = L"overwritten";
  path.reset();
  ASSERT_TRUE(package);
  EXPECT_EQ(static_cast<PagedFilePackage*>(package.Get())->GetConfig().filePath, path_);
  PackageTesting::CreateFilled(package, 100, 1);
  ASSERT_TRUE(package->Save());
  ASSERT_TRUE(package->Reload());
  EXPECT_EQ(package->GetNumberOfStreams(), 1u);
}

TEST_F(FilePackageTest, CreatingOverAnExistingPackageStartsEmpty) {
  {
    RefPtr<IDataStreamSet> package = CreateFilePackage(PackageTesting::Config(path_));
    PackageTesting::CreateFilled(package, 50000, 1);
    package->SetUserDataSize(10);
  }
  const std::uint64_t before = TempDir::SizeOf(path_);
  RefPtr<IDataStreamSet> package = CreateFilePackage(PackageTesting::Config(path_));
  ASSERT_TRUE(package);
  EXPECT_EQ(package->GetNumberOfStreams(), 0u);
  EXPECT_EQ(package->GetUserDataSize(), 0u);
  EXPECT_EQ(TempDir::SizeOf(path_), before) << "the file is not truncated";
  package.Reset();
  package = OpenFilePackage(PackageTesting::Config(path_));
  ASSERT_TRUE(package);
  EXPECT_EQ(package->GetNumberOfStreams(), 0u);
}

TEST_F(FilePackageTest, OpeningANewlyCreatedPackageFindsNoStreams) {
  CreateFilePackage(PackageTesting::Config(path_));
  RefPtr<IDataStreamSet> package = OpenFilePackage(PackageTesting::Config(path_));
  ASSERT_TRUE(package);
  EXPECT_EQ(package->GetNumberOfStreams(), 0u);
  EXPECT_EQ(package->GetTotalStreamSize(), 0u);
  EXPECT_EQ(package->GetUserData(), nullptr);
}

TEST_F(FilePackageTest, OpeningAMissingFileFailsAndLeavesItEmpty) {
  EXPECT_FALSE(OpenFilePackage(PackageTesting::Config(path_)));
  ASSERT_TRUE(std::filesystem::exists(std::filesystem::path(path_)));
  EXPECT_EQ(TempDir::SizeOf(path_), 0u);
}

TEST_F(FilePackageTest, OpeningAFileThatIsNoPackageFails) {
  TempDir::WriteAll(path_, std::vector<std::uint8_t>(3 * 8192, 0x5A));
  EXPECT_FALSE(OpenFilePackage(PackageTesting::Config(path_)));
  TempDir::WriteAll(path_, std::vector<std::uint8_t>(100, 0));
  EXPECT_FALSE(OpenFilePackage(PackageTesting::Config(path_)));
}

TEST_F(FilePackageTest, APathThatCannotBeOpenedGivesNothing) {
  const std::wstring inMissingFolder = dir_.File("no-such-folder/x.dat");
  EXPECT_FALSE(CreateFilePackage(PackageTesting::Config(inMissingFolder)));
  EXPECT_FALSE(OpenFilePackage(PackageTesting::Config(inMissingFolder)));
  const std::wstring folder = dir_.Path().wstring();
  EXPECT_FALSE(CreateFilePackage(PackageTesting::Config(folder)));
  PagedFilePackageConfig none{nullptr, 4, 10};
  EXPECT_FALSE(CreateFilePackage(none));
  EXPECT_FALSE(OpenFilePackage(none));
}

TEST_F(FilePackageTest, ALimitOfZeroStreamsRefusesEveryStream) {
  RefPtr<IDataStreamSet> package = CreateFilePackage(PackageTesting::Config(path_, 4, 0));
  ASSERT_TRUE(package);
  EXPECT_EQ(package->CreateStream(10), IDataStreamSet::kNoStream);
}

TEST(VertexNormalsControlTest, StartsSwitchedOnWithNoPointer) {
  alignas(VertexNormalsControl) unsigned char storage[sizeof(VertexNormalsControl)];
  std::memset(storage, 0xA5, sizeof storage);
  const auto* control = new (storage) VertexNormalsControl;
  EXPECT_TRUE(control->enabled);
  EXPECT_EQ(control->userData, nullptr);
}

}  // namespace
}  // namespace Tovrel
