// The tovrel program: standard output and error, its arguments as UTF-8,
// handed to TovrelTool.
#include <iostream>

#include "Console.h"
#include "TovrelTool.h"
#include "platform/ConsoleStreams.h"
#include "platform/ProgramArguments.h"

int main(int argc, char** argv) {
  using Tovrel::ConsoleStreams;
  ConsoleStreams::UseBinaryOutput();
  Tovrel::Tool::Console console(std::cout, std::cerr, ConsoleStreams::IsTerminal(ConsoleStreams::Stream::kError),
                                ConsoleStreams::IsTerminal(ConsoleStreams::Stream::kOutput));
  const int status = Tovrel::Tool::TovrelTool::Run(Tovrel::ProgramArguments::Get(argc, argv), console);
  std::cout.flush();
  return status;
}
