// NamePattern: a shell-style pattern over effect names, as `effects list`
// and `effects remove` take them: "*" matches any run of characters (none
// included), "?" any one character (of UTF-8, however many bytes), every
// other byte itself. Stateless; safe from any thread.
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
