#include "JsonWriter.h"

#include <cassert>
#include <cmath>
#include <cstdio>

namespace Tovrel {
namespace Tool {

JsonWriter::JsonWriter(std::ostream& out) : out_(out), afterKey_(false) {}

std::string JsonWriter::Escape(const std::string& text) {
  std::string escaped = "\"";
  for (unsigned char c : text) {
    switch (c) {
      case '"':
        escaped += "\\\"";
        break;
      case '\\':
        escaped += "\\\\";
        break;
      case '\n':
        escaped += "\\n";
        break;
      case '\r':
        escaped += "\\r";
        break;
      case '\t':
        escaped += "\\t";
        break;
      default:
        if (c < 0x20) {
          char code[8];
          std::snprintf(code, sizeof code, "\\u%04x", c);
          escaped += code;
        } else {
          escaped.push_back(static_cast<char>(c));
        }
    }
  }
  return escaped + "\"";
}

void JsonWriter::NewLine() { out_ << "\n" << std::string(2 * levels_.size(), ' '); }

void JsonWriter::BeforeValue() {
  if (afterKey_) {
    afterKey_ = false;
    return;
  }
  assert(levels_.empty() || !levels_.back().isObject);
  if (levels_.empty()) return;
  if (!levels_.back().empty) out_ << ",";
  levels_.back().empty = false;
  NewLine();
}

void JsonWriter::Open(char bracket, bool isObject) {
  BeforeValue();
  out_ << bracket;
  levels_.push_back(Level{isObject, true});
}

void JsonWriter::Close(char bracket, bool isObject) {
  assert(!levels_.empty() && levels_.back().isObject == isObject && !afterKey_);
  (void)isObject;
  const bool empty = levels_.back().empty;
  levels_.pop_back();
  if (!empty) NewLine();
  out_ << bracket;
}

JsonWriter& JsonWriter::BeginObject() {
  Open('{', true);
  return *this;
}

JsonWriter& JsonWriter::EndObject() {
  Close('}', true);
  return *this;
}

JsonWriter& JsonWriter::BeginArray() {
  Open('[', false);
  return *this;
}

JsonWriter& JsonWriter::EndArray() {
  Close(']', false);
  return *this;
}

JsonWriter& JsonWriter::Key(const std::string& key) {
  assert(!levels_.empty() && levels_.back().isObject && !afterKey_);
  if (!levels_.back().empty) out_ << ",";
  levels_.back().empty = false;
  NewLine();
  out_ << Escape(key) << ": ";
  afterKey_ = true;
  return *this;
}

JsonWriter& JsonWriter::String(const std::string& value) {
  BeforeValue();
  out_ << Escape(value);
  return *this;
}

JsonWriter& JsonWriter::Number(std::uint64_t value) {
  BeforeValue();
  out_ << value;
  return *this;
}

JsonWriter& JsonWriter::Number(double value) {
  BeforeValue();
  if (!std::isfinite(value)) {
    out_ << "null";
    return *this;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%.6g", value);
  out_ << text;
  return *this;
}

JsonWriter& JsonWriter::Bool(bool value) {
  BeforeValue();
  out_ << (value ? "true" : "false");
  return *this;
}

JsonWriter& JsonWriter::Null() {
  BeforeValue();
  out_ << "null";
  return *this;
}

void JsonWriter::Finish() {
  assert(levels_.empty() && !afterKey_);
  out_ << "\n";
}

}  // namespace Tool
}  // namespace Tovrel
