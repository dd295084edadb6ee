#include "host/Path.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using NorvaneSDK::Util::Path;

TEST(PathTest, JoinsAFolderAndANameWithTheSystemSeparator) {
  const wchar_t sep = Path::Separator();
  EXPECT_TRUE(sep == L'/' || sep == L'\\');
  Path folder(L"cache");
  folder.Append(L"file.dat");
  EXPECT_EQ(std::wstring(folder.GetCStr()), std::wstring(L"cache") + sep + L"file.dat");
}

TEST(PathTest, ATrailingSeparatorIsAddedOnlyOnce) {
  const std::wstring sep(1, Path::Separator());
  Path folder((L"cache" + sep).c_str());
  folder.AddTrailingSeparator();
  EXPECT_EQ(std::wstring(folder.GetCStr()), L"cache" + sep);
  Path empty;
  empty.AddTrailingSeparator();
  EXPECT_TRUE(empty.IsEmpty());
}

}  // namespace
