#include "CommandGroup.h"

#include <cassert>

#include "ExitStatus.h"
#include "ToolError.h"

namespace Tovrel {
namespace Tool {

CommandGroup::CommandGroup(std::string path, std::string summary, std::vector<Command> commands)
    : path_(std::move(path)), summary_(std::move(summary)), commands_(std::move(commands)) {
  for (const Command& command : commands_) {
    assert(static_cast<bool>(command.run) != static_cast<bool>(command.group));
    assert(command.minPositionals <= command.maxPositionals);
    (void)command;
  }
}

int CommandGroup::Run(const std::vector<std::string>& words, Console& console) const {
  if (words.empty()) {
    PrintHelp(console.Err());
    return ExitStatus::kUsage;
  }
  if (words[0] == "help" && words.size() > 1) {
    // "help effects list" is "effects list --help".
    std::vector<std::string> asked(words.begin() + 1, words.end());
    asked.push_back("--help");
    return Run(asked, console);
  }
  if (words[0] == "--help" || words[0] == "-h" || words[0] == "help") {
    PrintHelp(console.Out());
    return ExitStatus::kOk;
  }
  const Command* command = Find(words[0]);
  if (command == nullptr) {
    throw ToolError(ExitStatus::kUsage, "unknown command \"" + path_ + " " + words[0] + "\" (see \"" + path_ +
                                            " --help\")");
  }
  const std::vector<std::string> rest(words.begin() + 1, words.end());
  if (command->group) return command->group->Run(rest, console);
  return RunLeaf(*command, rest, console);
}

int CommandGroup::RunLeaf(const Command& command, const std::vector<std::string>& words, Console& console) const {
  // A usage error names the help of the command that was given, once.
  try {
    const CommandLine line(words, command.flags, command.valueOptions);
    if (line.WantsHelp()) {
      PrintLeafHelp(command, console.Out());
      return ExitStatus::kOk;
    }
    const std::size_t count = line.Positionals().size();
    if (count < command.minPositionals || count > command.maxPositionals) {
      throw ToolError(ExitStatus::kUsage, "usage: " + path_ + " " + command.name + " " + command.arguments);
    }
    return command.run(line, console);
  } catch (const ToolError& e) {
    if (e.Status() != ExitStatus::kUsage) throw;
    throw ToolError(ExitStatus::kUsage, std::string(e.what()) + " (see \"" + path_ + " " + command.name + " --help\")");
  }
}

const CommandGroup::Command* CommandGroup::Find(const std::string& name) const {
  for (const Command& command : commands_) {
    if (command.name == name) return &command;
  }
  return nullptr;
}

void CommandGroup::PrintHelp(std::ostream& out) const {
  out << "usage: " << path_ << " COMMAND ...\n\n" << summary_ << "\n\ncommands:\n";
  for (const Command& command : commands_) {
    const std::size_t kColumn = 36;
    std::string head = "  " + command.name + " " + command.arguments;
    head = head.size() < kColumn ? head + std::string(kColumn - head.size(), ' ') : head + "\n" + std::string(kColumn, ' ');
    out << head << command.summary << "\n";
  }
  out << "\n\"" << path_ << " COMMAND --help\" tells more about one command.\n";
}

void CommandGroup::PrintLeafHelp(const Command& command, std::ostream& out) const {
  out << "usage: " << path_ << " " << command.name << " " << command.arguments << "\n\n"
      << command.summary << "\n";
  if (!command.details.empty()) out << "\n" << command.details;
}

}  // namespace Tool
}  // namespace Tovrel
