// RemoteCommands: the "tovrel effects" commands that move effects between
// a cache folder and a remote store (see docs/REMOTE.md):
//
//   push FOLDER STORE                    every effect of the folder, as stored
//   pull FOLDER STORE (NAME... | --all)  the named effects, or every one the
//                                        server's listings name, into the folder
//
// STORE is a store's text as the library reads it ("URL", then options
// such as "|timeout-ms=5000"). Each is one call of EffectRemoteSync; the
// commands parse, show progress on a terminal and print what moved. Exit
// status 1 when effects were left over (a failing store), 2 when the
// folder's cache cannot be read.
// Stateless; thread-safety: one command at a time.
#ifndef TOVREL_TOOL_REMOTECOMMANDS_H
#define TOVREL_TOOL_REMOTECOMMANDS_H

#include <string>
#include <vector>

#include "CommandGroup.h"
#include "CommandLine.h"
#include "Console.h"
#include "effectcache/EffectRemoteStore.h"

namespace Tovrel {
namespace Tool {

class RemoteCommands {
 public:
  // Appends the commands to a group's list.
  static void AddTo(std::vector<CommandGroup::Command>& commands);

  // The store a command line names; a usage error saying what is wrong
  // with the text otherwise (its credentials never shown).
  static EffectRemoteStore::Settings StoreOf(const std::string& text);

  static int Push(const CommandLine& line, Console& console);
  static int Pull(const CommandLine& line, Console& console);
};

}  // namespace Tool
}  // namespace Tovrel

#endif
