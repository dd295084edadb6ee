#include "platform/Environment.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace Tovrel {
namespace {

// Sets a variable for the test through the C runtime, which both systems'
// readers see.
void Put(const std::string& assignment) {
  static std::string keep[8];
  static int next = 0;
  keep[next % 8] = assignment;
  putenv(&keep[next++ % 8][0]);
}

TEST(EnvironmentTest, ReadsAValueAsWideText) {
  Put("TOVREL_TEST_VALUE=some/log file.txt");
  EXPECT_EQ(Environment::Get(L"TOVREL_TEST_VALUE"), L"some/log file.txt");
}

TEST(EnvironmentTest, UnsetEmptyOrTooLongReadsAsAbsent) {
  EXPECT_EQ(Environment::Get(L"TOVREL_TEST_NEVER_SET"), L"");
  Put("TOVREL_TEST_LONG=" + std::string(260, 'x'));
  EXPECT_EQ(Environment::Get(L"TOVREL_TEST_LONG"), L"");
  Put("TOVREL_TEST_FITS=" + std::string(259, 'y'));
  EXPECT_EQ(Environment::Get(L"TOVREL_TEST_FITS").size(), 259u);
}

}  // namespace
}  // namespace Tovrel
