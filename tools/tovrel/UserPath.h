// UserPath: a file or folder the user named on the command line, made
// absolute and normal ("./fx/../fxcache/" becomes "/home/me/fxcache"),
// as the wide path the library takes.
//
// The cache's named mutex is named after the cache file's path, so every
// process that uses a cache must name it the same way; the tool always
// names it by its absolute, normal path (and so should a host that shares
// a cache with the tool). The typed text is kept for messages.
// Value type; thread-safety as any value.
#ifndef TOVREL_TOOL_USERPATH_H
#define TOVREL_TOOL_USERPATH_H

#include <cstdint>
#include <string>

namespace Tovrel {
namespace Tool {

class UserPath {
 public:
  // ToolError (unreadable) when no absolute form can be made.
  explicit UserPath(const std::string& typed);

  const std::string& Typed() const { return typed_; }
  // Absolute and normal, without a trailing separator (except at a root).
  const std::wstring& Absolute() const { return absolute_; }
  std::string AbsoluteText() const;

  bool Exists() const;
  bool IsFile() const;
  bool IsFolder() const;
  // Bytes of the file; 0 when it cannot be told.
  std::uint64_t FileSize() const;

 private:
  std::string typed_;
  std::wstring absolute_;
};

}  // namespace Tool
}  // namespace Tovrel

#endif
