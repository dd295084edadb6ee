#include "ReadmeExamples.h"

#include <regex>
#include <sstream>

namespace Tovrel {
namespace Testing {

namespace {

bool StartsWith(const std::string& text, const std::string& start) { return text.compare(0, start.size(), start) == 0; }

bool Continues(const std::string& command) {
  return !command.empty() && (command.back() == '|' || command.back() == '\\');
}

// Adds an output line of README to the example it belongs to.
void AddShown(ReadmeExamples::Example& example, const std::string& line) {
  static const std::regex exitLine(R"(^\(exit (\d+)\)$)");
  std::smatch match;
  if (std::regex_match(line, match, exitLine)) {
    example.status = std::stoi(match[1]);
  } else if (StartsWith(line, "tovrel: ")) {
    example.err.push_back(line);
  } else {
    example.out.push_back(line);
  }
}

}  // namespace

std::vector<std::string> ReadmeExamples::Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

std::vector<ReadmeExamples::Block> ReadmeExamples::Parse(const std::string& markdown) {
  std::vector<Block> blocks;
  const std::vector<std::string> lines = Lines(markdown);
  bool inFence = false;
  Block block;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const std::string& line = lines[i];
    if (StartsWith(line, "```")) {
      if (inFence && !block.examples.empty()) blocks.push_back(block);
      block = Block{};
      inFence = !inFence;
      continue;
    }
    if (!inFence) continue;
    if (StartsWith(line, "$ ")) {
      Example example;
      example.command = line.substr(2);
      example.line = static_cast<int>(i + 1);
      while (Continues(example.command) && i + 1 < lines.size() && StartsWith(lines[i + 1], "  ")) {
        example.command += "\n" + lines[++i];
      }
      block.examples.push_back(example);
    } else if (!block.examples.empty()) {
      AddShown(block.examples.back(), line);
    }
  }
  return blocks;
}

std::vector<std::string> ReadmeExamples::Shape(const std::vector<std::string>& lines) {
  static const std::regex number(R"(\d[\d,.:]*\d|\d)");
  static const std::regex sized(R"(# [KMG]iB)");
  static const std::regex duration(R"(# (ms|s)\b)");
  static const std::regex spaces(R"(\s+)");
  static const std::regex lastUse(R"(^((oldest|newest) used .*  ).*$)");
  std::vector<std::string> shaped;
  for (const std::string& line : lines) {
    // Every number as "#", but a lone 1: the noun after it is singular.
    std::string text;
    std::size_t at = 0;
    for (auto it = std::sregex_iterator(line.begin(), line.end(), number); it != std::sregex_iterator(); ++it) {
      text += line.substr(at, static_cast<std::size_t>(it->position()) - at);
      text += it->str() == "1" ? "1" : "#";
      at = static_cast<std::size_t>(it->position() + it->length());
    }
    text += line.substr(at);
    text = std::regex_replace(text, lastUse, "$1(an effect)");
    text = std::regex_replace(text, sized, "# iB");
    text = std::regex_replace(text, duration, "# time");
    text = std::regex_replace(text, spaces, " ");
    const std::size_t first = text.find_first_not_of(' ');
    if (first == std::string::npos) continue;
    shaped.push_back(text.substr(first, text.find_last_not_of(' ') - first + 1));
  }
  return shaped;
}

}  // namespace Testing
}  // namespace Tovrel
