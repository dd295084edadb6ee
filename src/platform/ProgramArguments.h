// ProgramArguments: the words a program was started with, as UTF-8.
//
// POSIX hands main its arguments as bytes, taken to be UTF-8 already.
// Windows hands main narrow arguments in the system code page, where
// names outside it are lost, so there the arguments are taken from the
// wide command line (CommandLineToArgvW) and converted to UTF-8 instead.
// Stateless; call from main.
#ifndef TOVREL_PLATFORM_PROGRAMARGUMENTS_H
#define TOVREL_PLATFORM_PROGRAMARGUMENTS_H

#include <string>
#include <vector>

namespace Tovrel {

class ProgramArguments {
 public:
  // The arguments after the program's name; argc and argv are main's.
  static std::vector<std::string> Get(int argc, char** argv);
};

}  // namespace Tovrel

#endif
