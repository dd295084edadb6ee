#include "platform/ProgramArguments.h"

namespace Tovrel {

std::vector<std::string> ProgramArguments::Get(int argc, char** argv) {
  std::vector<std::string> words;
  for (int i = 1; i < argc; ++i) words.emplace_back(argv[i]);
  return words;
}

}  // namespace Tovrel
