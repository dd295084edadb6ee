#include "TovrelTool.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <string>

#include "DemoCommand.h"
#include "EffectCommands.h"
#include "ExitStatus.h"
#include "PackageCommands.h"
#include "ToolError.h"

namespace Tovrel {
namespace Tool {

std::shared_ptr<CommandGroup> TovrelTool::Commands() {
  using Command = CommandGroup::Command;
  std::vector<Command> commands;
  commands.push_back(DemoCommand::Describe());
  commands.push_back(Command{"package", "COMMAND ...", "a package file: info, ls, cat, verify, compact", "", {}, {},
                             0, 0, nullptr, PackageCommands::Group()});
  commands.push_back(Command{"effects", "COMMAND ...",
                             "an effect cache folder: list, get, put, remove, clear, trim, merge, compact, push, pull, stats, verify", "",
                             {}, {}, 0, 0, nullptr, EffectCommands::Group()});
  return std::make_shared<CommandGroup>(
      "tovrel",
      "Looks into Tovrel package files and effect cache folders, and plays a host\n"
      "that uses an effect cache (demo).\n\n"
      "exit status: 0 done; 1 problems found (verify) or the command failed;\n"
      "2 the file cannot be read at all; 3 the command line is wrong\n\n"
      "\"tovrel --version\" prints the version of Tovrel it was built from.",
      std::move(commands));
}

int TovrelTool::Run(const std::vector<std::string>& words, Console& console) {
  if (words.size() == 1 && words[0] == "--version") {
    console.Out() << "tovrel " << TOVREL_VERSION << "\n";
    return CheckOutput(ExitStatus::kOk, console);
  }
  return CheckOutput(RunCommand(words, console), console);
}

int TovrelTool::RunCommand(const std::vector<std::string>& words, Console& console) {
  try {
    return Commands()->Run(words, console);
  } catch (const ToolError& e) {
    console.Err() << "tovrel: " << e.what() << "\n";
    return e.Status();
  } catch (const std::bad_alloc&) {
    console.Err() << "tovrel: out of memory\n";
  } catch (const std::exception& e) {
    console.Err() << "tovrel: " << e.what() << "\n";
  }
  return ExitStatus::kFailed;
}

int TovrelTool::CheckOutput(int status, Console& console) {
  // A script must never take cut-short output for success (a full disk
  // behind standard output, a closed pipe).
  errno = 0;
  console.Out().flush();
  if (console.Out()) return status;
  const int error = errno;
  console.Err() << "tovrel: standard output could not be written"
                << (error != 0 ? std::string(" (") + std::strerror(error) + ")" : std::string()) << "\n";
  return status == ExitStatus::kOk ? ExitStatus::kFailed : status;
}

}  // namespace Tool
}  // namespace Tovrel
