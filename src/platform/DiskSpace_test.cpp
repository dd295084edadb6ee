#include "platform/DiskSpace.h"

#include <gtest/gtest.h>

#include "support/TempDir.h"

namespace Tovrel {
namespace {

TEST(DiskSpaceTest, AnExistingFolderHasSpaceAndAMissingOneNone) {
  Testing::TempDir dir;
  EXPECT_GT(DiskSpace::AvailableBytes(dir.Path().wstring().c_str()), 0u);
  const std::wstring missing = dir.File("no-such-folder") + L"/deeper";
  EXPECT_EQ(DiskSpace::AvailableBytes(missing.c_str()), 0u);
  EXPECT_EQ(DiskSpace::AvailableBytes(nullptr), 0u);
}

}  // namespace
}  // namespace Tovrel
