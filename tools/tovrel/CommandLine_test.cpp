#include "CommandLine.h"

#include <gtest/gtest.h>

#include "ExitStatus.h"
#include "ToolError.h"

namespace Tovrel {
namespace Tool {
namespace {

int UsageStatusOf(const std::vector<std::string>& words) {
  try {
    CommandLine line(words, {"--json"}, {"-o"});
  } catch (const ToolError& e) {
    return e.Status();
  }
  return ExitStatus::kOk;
}

TEST(CommandLineTest, SplitsFlagsValuesAndPositionals) {
  const CommandLine line({"folder", "--json", "-o", "out.bin", "name"}, {"--json"}, {"-o"});
  EXPECT_TRUE(line.Has("--json"));
  EXPECT_FALSE(line.WantsHelp());
  EXPECT_EQ(line.Value("-o", "none"), "out.bin");
  EXPECT_EQ(line.Positionals(), (std::vector<std::string>{"folder", "name"}));
}

TEST(CommandLineTest, AValueMayFollowAnEqualsSign) {
  const CommandLine line({"-o=a=b.bin"}, {}, {"-o"});
  EXPECT_TRUE(line.HasValue("-o"));
  EXPECT_EQ(line.Value("-o", ""), "a=b.bin");
}

TEST(CommandLineTest, AnOptionNotGivenHasItsFallback) {
  const CommandLine line({"x"}, {"--json"}, {"-o"});
  EXPECT_FALSE(line.Has("--json"));
  EXPECT_FALSE(line.HasValue("-o"));
  EXPECT_EQ(line.Value("-o", "fallback"), "fallback");
}

TEST(CommandLineTest, HelpIsKnownEverywhere) {
  EXPECT_TRUE(CommandLine({"-h"}, {}, {}).WantsHelp());
  EXPECT_TRUE(CommandLine({"a", "--help"}, {}, {}).WantsHelp());
}

TEST(CommandLineTest, AfterTwoDashesEveryWordIsPositional) {
  const CommandLine line({"--", "--json", "-o"}, {"--json"}, {"-o"});
  EXPECT_FALSE(line.Has("--json"));
  EXPECT_EQ(line.Positionals(), (std::vector<std::string>{"--json", "-o"}));
}

TEST(CommandLineTest, ASingleDashIsPositional) {
  EXPECT_EQ(CommandLine({"-"}, {}, {}).Positionals(), std::vector<std::string>{"-"});
}

TEST(CommandLineTest, UnknownOptionsAndMissingValuesAreUsageErrors) {
  EXPECT_EQ(UsageStatusOf({"--jsn"}), ExitStatus::kUsage);
  EXPECT_EQ(UsageStatusOf({"file", "-o"}), ExitStatus::kUsage);
  EXPECT_EQ(UsageStatusOf({"file", "-o", "x"}), ExitStatus::kOk);
}

TEST(CommandLineTest, NumbersAreWholeAndInRange) {
  EXPECT_EQ(CommandLine::Number("0", "ID", 0, 10), 0u);
  EXPECT_EQ(CommandLine::Number("10", "ID", 0, 10), 10u);
  EXPECT_EQ(CommandLine::Number("18446744073709551614", "ID", 0, 18446744073709551614ull), 18446744073709551614ull);
  EXPECT_THROW(CommandLine::Number("11", "ID", 0, 10), ToolError);
  EXPECT_THROW(CommandLine::Number("18446744073709551616", "ID", 0, ~0ull), ToolError);
  EXPECT_THROW(CommandLine::Number("-1", "ID", 0, 10), ToolError);
  EXPECT_THROW(CommandLine::Number("1x", "ID", 0, 10), ToolError);
  EXPECT_THROW(CommandLine::Number("", "ID", 0, 10), ToolError);
  EXPECT_THROW(CommandLine::Number("0", "ID", 1, 10), ToolError);
}

TEST(CommandLineTest, SizesTakeBinaryUnitsAndFractions) {
  EXPECT_EQ(CommandLine::Size("1000000", "--max-size"), 1000000u);
  EXPECT_EQ(CommandLine::Size("0", "--max-size"), 0u);
  EXPECT_EQ(CommandLine::Size("256M", "--max-size"), 256u << 20);
  EXPECT_EQ(CommandLine::Size("256m", "--max-size"), 256u << 20);
  EXPECT_EQ(CommandLine::Size("1.5G", "--max-size"), 3ull << 29);
  EXPECT_EQ(CommandLine::Size("64K", "--max-size"), 65536u);
  EXPECT_EQ(CommandLine::Size("2T", "--max-size"), 2ull << 40);
  EXPECT_EQ(CommandLine::Size("0.5K", "--max-size"), 512u);
  for (const char* bad : {"", "M", "1.", ".5M", "1.5.5G", "-1", "12X", "1e6", "1.1234567G", "16777216T",
                          "18446744073709551616"}) {
    EXPECT_THROW(CommandLine::Size(bad, "--max-size"), ToolError) << bad;
  }
}

TEST(CommandLineTest, DurationsTakeAUnit) {
  EXPECT_EQ(CommandLine::Duration("30d", "--older-than"), 30 * 86400);
  EXPECT_EQ(CommandLine::Duration("12h", "--older-than"), 12 * 3600);
  EXPECT_EQ(CommandLine::Duration("90m", "--older-than"), 90 * 60);
  EXPECT_EQ(CommandLine::Duration("45s", "--older-than"), 45);
  EXPECT_EQ(CommandLine::Duration("2w", "--older-than"), 2 * 604800);
  for (const char* bad : {"", "d", "30", "30x", "-3d", "1.5d", "99999999999999999999d"}) {
    EXPECT_THROW(CommandLine::Duration(bad, "--older-than"), ToolError) << bad;
  }
}

TEST(CommandLineTest, ANumberErrorNamesWhatAndTheText) {
  try {
    CommandLine::Number("abc", "--effects", 1, 60000);
    FAIL() << "no error";
  } catch (const ToolError& e) {
    EXPECT_EQ(e.Status(), ExitStatus::kUsage);
    EXPECT_NE(std::string(e.what()).find("--effects"), std::string::npos);
    EXPECT_NE(std::string(e.what()).find("\"abc\""), std::string::npos);
  }
}

}  // namespace
}  // namespace Tool
}  // namespace Tovrel
