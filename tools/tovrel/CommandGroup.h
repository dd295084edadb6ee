// CommandGroup: a level of the tool's commands ("tovrel", "tovrel
// package", "tovrel effects"): its subcommands, their help and the
// dispatch to them.
//
// A subcommand is either a leaf, with its options, the number of
// positional arguments it takes and the function that runs it, or a
// nested group. "--help" (or "-h") works at every level: after a group
// it lists the group's subcommands, after a leaf it shows the leaf's
// usage. Help asked for goes to the output with status 0; help after a
// wrong command line goes to the messages with the usage status.
//
// Built once per run and not changed afterwards. Thread-safety: none.
#ifndef TOVREL_TOOL_COMMANDGROUP_H
#define TOVREL_TOOL_COMMANDGROUP_H

#include <cstddef>
#include <functional>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "Console.h"

namespace Tovrel {
namespace Tool {

class CommandGroup {
 public:
  using Leaf = std::function<int(const CommandLine&, Console&)>;

  struct Command {
    std::string name;
    std::string arguments;  // as shown in usage: "FILE ID [-o FILE]"
    std::string summary;    // one line for the group's list
    std::string details;    // the leaf's help text after its usage line
    std::set<std::string> flags;
    std::set<std::string> valueOptions;
    std::size_t minPositionals;
    std::size_t maxPositionals;
    Leaf run;                             // set for a leaf
    std::shared_ptr<CommandGroup> group;  // set for a nested group
  };

  // `path`: the words that lead here ("tovrel package"); `summary`: what
  // the group is for, shown at the top of its help.
  CommandGroup(std::string path, std::string summary, std::vector<Command> commands);

  // Runs the subcommand that `words` name; its exit status.
  int Run(const std::vector<std::string>& words, Console& console) const;
  void PrintHelp(std::ostream& out) const;
  const std::string& Path() const { return path_; }

 private:
  const Command* Find(const std::string& name) const;
  int RunLeaf(const Command& command, const std::vector<std::string>& words, Console& console) const;
  void PrintLeafHelp(const Command& command, std::ostream& out) const;

  std::string path_;
  std::string summary_;
  // Invariant: every command has exactly one of run and group.
  std::vector<Command> commands_;
};

}  // namespace Tool
}  // namespace Tovrel

#endif
