// NamePattern: a shell-style pattern over effect names, as `effects list`
// filters with: "*" matches any run of bytes (none included), "?" any one
// byte, every other byte itself. Names are UTF-8; "?" matches a byte, not
// a character. Stateless; safe from any thread.
#ifndef TOVREL_TOOL_NAMEPATTERN_H
#define TOVREL_TOOL_NAMEPATTERN_H

#include <string>

namespace Tovrel {
namespace Tool {

class NamePattern {
 public:
  static bool Matches(const std::string& pattern, const std::string& name);
};

}  // namespace Tool
}  // namespace Tovrel

#endif
