// PackageCommands: "tovrel package": looking into any package file.
//
//   info FILE [--json]    sizes and counts: file, pages, streams, child
//                         files and their fill, head stream, user data
//   ls FILE [--json]      one line per stream: identifier, size, whole
//                         pages, where its tail lies
//   cat FILE ID           the stream's bytes to standard output
//   verify FILE           the deep check of PackageVerifier; exit status
//                         0 clean, 1 problems found, 2 unreadable
//   compact FILE          the file shrunk to the pages it uses
//
// Every command reads the file through LockedPackage (under the named
// mutex a cache file of that path would have) and changes nothing, but
// compact, which changes it in one crash-safe save (a cache file through
// its folder's cache, so that hosts using it reload).
// Stateless; thread-safety: one command at a time.
#ifndef TOVREL_TOOL_PACKAGECOMMANDS_H
#define TOVREL_TOOL_PACKAGECOMMANDS_H

#include <memory>

#include "CommandGroup.h"

namespace Tovrel {
namespace Tool {

class PackageCommands {
 public:
  static std::shared_ptr<CommandGroup> Group();

  static int Info(const CommandLine& line, Console& console);
  static int List(const CommandLine& line, Console& console);
  static int Cat(const CommandLine& line, Console& console);
  static int Verify(const CommandLine& line, Console& console);
  static int Compact(const CommandLine& line, Console& console);
};

}  // namespace Tool
}  // namespace Tovrel

#endif
