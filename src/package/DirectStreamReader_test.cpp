#include "package/DirectStreamReader.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <thread>
#include <vector>

#include "pagefile/FileIOException.h"
#include "platform/FileFaults.h"
#include "support/InstalledFileSystem.h"
#include "support/PackageTesting.h"
#include "support/TempDir.h"

namespace Tovrel {
namespace {

using Testing::PackageTesting;
using Testing::TempDir;
using Result = DirectStreamReader::Result;

class DirectStreamReaderTest : public ::testing::Test {
 protected:
  void TearDown() override { FileFaults::Reset(); }

  // A saved package whose streams have every shape: tails only, whole
  // pages only, both, and pages scattered by removals in between.
  RefPtr<PagedFilePackage> Saved() {
    RefPtr<PagedFilePackage> package(new PagedFilePackage(PackageTesting::Config(path_)));
    EXPECT_TRUE(package->Create());
    RefPtr<IDataStreamSet> set(package.Get());
    const std::vector<std::uint64_t> sizes = {1, 100, 8191, 8192, 8193, 20000, 3 * 8192, 70000, 5000, 16385};
    std::vector<std::uint64_t> spacers;
    for (std::size_t i = 0; i < sizes.size(); ++i) {
      spacers.push_back(PackageTesting::CreateFilled(set, 9000, 900 + static_cast<std::uint32_t>(i)));
      ids_.push_back(PackageTesting::CreateFilled(set, sizes[i], static_cast<std::uint32_t>(i)));
      sizes_.push_back(sizes[i]);
    }
    for (std::size_t i = 0; i < spacers.size(); i += 2) set->RemoveStream(spacers[i]);
    for (std::size_t i = 0; i < 3; ++i) {
      ids_.push_back(PackageTesting::CreateFilled(set, 12000 + i, 50 + static_cast<std::uint32_t>(i)));
      sizes_.push_back(12000 + i);
    }
    EXPECT_TRUE(package->Save());
    return package;
  }
  std::vector<std::uint8_t> Expected(std::size_t i) {
    return PackageTesting::Bytes(sizes_[i], i < 10 ? static_cast<std::uint32_t>(i) : 50 + static_cast<std::uint32_t>(i - 10));
  }

  TempDir dir_;
  std::wstring path_ = dir_.File("package.dat");
  std::vector<std::uint64_t> ids_;
  std::vector<std::uint64_t> sizes_;
};

TEST_F(DirectStreamReaderTest, ReadsEveryStreamAsThePackageHoldsIt) {
  RefPtr<PagedFilePackage> package = Saved();
  for (std::size_t i = 0; i < ids_.size(); ++i) {
    std::vector<std::uint8_t> bytes;
    ASSERT_EQ(DirectStreamReader::Read(*package, ids_[i], 1 << 20, bytes), Result::kOk) << i;
    EXPECT_EQ(bytes, Expected(i)) << "stream of " << sizes_[i] << " bytes";
    EXPECT_EQ(bytes, PackageTesting::ReadAll(package->OpenStream(ids_[i])));
  }
}

TEST_F(DirectStreamReaderTest, ManyThreadsReadOnePackageAtOnce) {
  RefPtr<PagedFilePackage> package = Saved();
  std::vector<int> wrong(4, 0);
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < wrong.size(); ++t) {
    threads.emplace_back([&, t] {
      std::vector<std::uint8_t> bytes;
      for (int round = 0; round < 50; ++round) {
        for (std::size_t i = 0; i < ids_.size(); ++i) {
          if (DirectStreamReader::Read(*package, ids_[i], 1 << 20, bytes) != Result::kOk || bytes != Expected(i)) {
            ++wrong[t];
          }
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int w : wrong) EXPECT_EQ(w, 0);
}

TEST_F(DirectStreamReaderTest, AnswersForMissingAndOversizedStreams) {
  RefPtr<PagedFilePackage> package = Saved();
  std::vector<std::uint8_t> bytes;
  EXPECT_EQ(DirectStreamReader::Read(*package, 999, 1 << 20, bytes), Result::kNoStream);
  EXPECT_EQ(DirectStreamReader::Read(*package, ids_[7], 69999, bytes), Result::kTooLarge);
  EXPECT_EQ(DirectStreamReader::Read(*package, ids_[7], 70000, bytes), Result::kOk);
}

TEST_F(DirectStreamReaderTest, DeclinesWhileThePackageHoldsWhatTheFileDoesNot) {
  RefPtr<PagedFilePackage> package = Saved();
  RefPtr<IDataStreamSet> set(package.Get());
  std::vector<std::uint8_t> bytes;
  // A new stream's pages, not yet saved.
  const std::uint64_t fresh = PackageTesting::CreateFilled(set, 9000, 77);
  EXPECT_EQ(DirectStreamReader::Read(*package, fresh, 1 << 20, bytes), Result::kDeclined);
  EXPECT_EQ(DirectStreamReader::Read(*package, ids_[0], 1 << 20, bytes), Result::kDeclined);
  ASSERT_TRUE(package->Save());
  EXPECT_EQ(DirectStreamReader::Read(*package, fresh, 1 << 20, bytes), Result::kOk);
  EXPECT_EQ(bytes, PackageTesting::Bytes(9000, 77));
  // A stream written in place, not yet saved: its pages wait in the cache.
  {
    RefPtr<IDataStream> stream = package->OpenStream(ids_[5]);
    ASSERT_TRUE(stream);
    const std::uint8_t zero[16] = {};
    ASSERT_EQ(stream->Write(zero, sizeof zero), sizeof zero);
  }
  EXPECT_EQ(DirectStreamReader::Read(*package, ids_[5], 1 << 20, bytes), Result::kDeclined);
}

TEST_F(DirectStreamReaderTest, AFailedReadRaisesWithItsErrorAndChangesNothing) {
  RefPtr<PagedFilePackage> package = Saved();
  std::vector<std::uint8_t> bytes;
  FileFaults::FailNth(FileCall::kRead, 1, EIO);
  try {
    DirectStreamReader::Read(*package, ids_[5], 1 << 20, bytes);
    FAIL() << "the failed read was not reported";
  } catch (const FileIOException& e) {
    EXPECT_EQ(e.errorCode, EIO);
  }
  FileFaults::Reset();
  ASSERT_EQ(DirectStreamReader::Read(*package, ids_[5], 1 << 20, bytes), Result::kOk);
  EXPECT_EQ(bytes, Expected(5));
}

TEST_F(DirectStreamReaderTest, ReadsFromTheInMemoryFileSystemToo) {
  Testing::InstalledFileSystem files;
  path_ = L"/direct.dat";
  RefPtr<PagedFilePackage> package = Saved();
  std::vector<std::uint8_t> bytes;
  for (std::size_t i = 0; i < ids_.size(); ++i) {
    ASSERT_EQ(DirectStreamReader::Read(*package, ids_[i], 1 << 20, bytes), Result::kOk);
    EXPECT_EQ(bytes, Expected(i));
  }
}

}  // namespace
}  // namespace Tovrel
