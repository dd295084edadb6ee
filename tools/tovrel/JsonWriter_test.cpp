#include "JsonWriter.h"

#include <gtest/gtest.h>

#include <limits>
#include <sstream>

namespace Tovrel {
namespace Tool {
namespace {

TEST(JsonWriterTest, WritesNestedObjectsAndArraysIndented) {
  std::ostringstream out;
  JsonWriter json(out);
  json.BeginObject().Field("name", "a").Field("size", std::uint64_t{12}).Key("list").BeginArray();
  json.Number(std::uint64_t{1}).Bool(true).BeginObject().EndObject().EndArray().EndObject().Finish();
  EXPECT_EQ(out.str(),
            "{\n  \"name\": \"a\",\n  \"size\": 12,\n  \"list\": [\n    1,\n    true,\n    {}\n  ]\n}\n");
}

TEST(JsonWriterTest, EmptyContainersStayOnOneLine) {
  std::ostringstream out;
  JsonWriter json(out);
  json.BeginArray().EndArray().Finish();
  EXPECT_EQ(out.str(), "[]\n");
}

TEST(JsonWriterTest, EscapesQuotesBackslashesAndControlCharacters) {
  EXPECT_EQ(JsonWriter::Escape("a\"b\\c\nd\te\x01"), "\"a\\\"b\\\\c\\nd\\te\\u0001\"");
  EXPECT_EQ(JsonWriter::Escape("caf\xC3\xA9"), "\"caf\xC3\xA9\"");
}

TEST(JsonWriterTest, NumbersThatAreNotFiniteAreNull) {
  std::ostringstream out;
  JsonWriter json(out);
  json.BeginArray().Number(std::numeric_limits<double>::infinity()).Number(2.5).EndArray().Finish();
  EXPECT_EQ(out.str(), "[\n  null,\n  2.5\n]\n");
}

}  // namespace
}  // namespace Tool
}  // namespace Tovrel
