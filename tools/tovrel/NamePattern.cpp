#include "NamePattern.h"

namespace Tovrel {
namespace Tool {

namespace {

// Bytes of the UTF-8 character that starts at name[at]: its lead byte and
// the continuation bytes (10xxxxxx) after it.
std::size_t CharacterAt(const std::string& name, std::size_t at) {
  std::size_t end = at + 1;
  while (end < name.size() && end - at < 4 && (static_cast<unsigned char>(name[end]) & 0xC0) == 0x80) ++end;
  return end - at;
}

}  // namespace

bool NamePattern::Matches(const std::string& pattern, const std::string& name) {
  // Greedy matching with one backtrack point: the last "*" seen and the
  // name position it was tried at; linear in practice, never exponential.
  // The name is walked a character at a time where "?" or "*" take one.
  std::size_t p = 0, n = 0;
  std::size_t star = std::string::npos, resume = 0;
  while (n < name.size()) {
    if (p < pattern.size() && pattern[p] == '?') {
      ++p;
      n += CharacterAt(name, n);
    } else if (p < pattern.size() && pattern[p] == name[n] && pattern[p] != '*') {
      ++p;
      ++n;
    } else if (p < pattern.size() && pattern[p] == '*') {
      star = p++;
      resume = n;
    } else if (star != std::string::npos) {
      p = star + 1;
      resume += CharacterAt(name, resume);
      n = resume;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

}  // namespace Tool
}  // namespace Tovrel
