// LocalFile: whole files the tool reads or writes for its user: the bytes
// put stores, the bytes get writes with -o, the demo's record of its runs.
// Failures are ToolErrors (status 1) that name the file.
// Stateless; thread-safety as the file system's.
#ifndef TOVREL_TOOL_LOCALFILE_H
#define TOVREL_TOOL_LOCALFILE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "UserPath.h"

namespace Tovrel {
namespace Tool {

class LocalFile {
 public:
  // The whole file; ToolError when it cannot be read or is larger than `limit`.
  static std::vector<unsigned char> Read(const UserPath& file, std::uint64_t limit);
  // Replaces the file's content with `size` bytes.
  static void Write(const UserPath& file, const unsigned char* bytes, std::size_t size);
  // Adds `text` at the end of the file, creating it.
  static void Append(const UserPath& file, const std::string& text);
};

}  // namespace Tool
}  // namespace Tovrel

#endif
