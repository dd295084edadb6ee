#include "NamePattern.h"

namespace Tovrel {
namespace Tool {

bool NamePattern::Matches(const std::string& pattern, const std::string& name) {
  // Greedy matching with one backtrack point: the last "*" seen and the
  // name position it was tried at; linear in practice, never exponential.
  std::size_t p = 0, n = 0;
  std::size_t star = std::string::npos, resume = 0;
  while (n < name.size()) {
    if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == name[n]) && pattern[p] != '*') {
      ++p;
      ++n;
    } else if (p < pattern.size() && pattern[p] == '*') {
      star = p++;
      resume = n;
    } else if (star != std::string::npos) {
      p = star + 1;
      n = ++resume;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

}  // namespace Tool
}  // namespace Tovrel
