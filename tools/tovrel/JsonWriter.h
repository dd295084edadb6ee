// JsonWriter: writes one JSON document to a stream as it goes, indented
// two spaces a level, for the --json output of the tool's commands.
//
// Values are written in document order: BeginObject/EndObject and
// BeginArray/EndArray nest; inside an object every value follows a Key.
// Strings are taken as UTF-8 and escaped as JSON requires; a number that
// is not finite is written as null. Finish ends the document with a
// newline once every object and array is closed.
// Owns nothing; the stream must outlive it. Thread-safety: none.
#ifndef TOVREL_TOOL_JSONWRITER_H
#define TOVREL_TOOL_JSONWRITER_H

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace Tovrel {
namespace Tool {

class JsonWriter {
 public:
  explicit JsonWriter(std::ostream& out);

  JsonWriter& BeginObject();
  JsonWriter& EndObject();
  JsonWriter& BeginArray();
  JsonWriter& EndArray();
  JsonWriter& Key(const std::string& key);
  JsonWriter& String(const std::string& value);
  JsonWriter& Number(std::uint64_t value);
  JsonWriter& Number(double value);
  JsonWriter& Bool(bool value);
  JsonWriter& Null();

  // Key and value in one call.
  template <typename T>
  JsonWriter& Field(const std::string& key, const T& value) {
    Key(key);
    return Value(value);
  }
  void Finish();

  static std::string Escape(const std::string& text);

 private:
  struct Level {
    bool isObject;
    bool empty;
  };

  JsonWriter& Value(const std::string& value) { return String(value); }
  JsonWriter& Value(const char* value) { return String(value); }
  JsonWriter& Value(bool value) { return Bool(value); }
  JsonWriter& Value(double value) { return Number(value); }
  JsonWriter& Value(std::uint64_t value) { return Number(value); }
  JsonWriter& Value(std::uint32_t value) { return Number(static_cast<std::uint64_t>(value)); }

  // Separator and indentation before a value (or a key inside an object).
  void BeforeValue();
  void Open(char bracket, bool isObject);
  void Close(char bracket, bool isObject);
  void NewLine();

  std::ostream& out_;
  std::vector<Level> levels_;
  bool afterKey_;  // a key was written and waits for its value
};

}  // namespace Tool
}  // namespace Tovrel

#endif
