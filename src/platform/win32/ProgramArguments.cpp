#include "platform/ProgramArguments.h"

#include <windows.h>
#include <shellapi.h>

#include "platform/WideText.h"

namespace Tovrel {

std::vector<std::string> ProgramArguments::Get(int argc, char** argv) {
  int count = 0;
  LPWSTR* wide = CommandLineToArgvW(GetCommandLineW(), &count);
  std::vector<std::string> words;
  if (wide == nullptr) {
    for (int i = 1; i < argc; ++i) words.emplace_back(argv[i]);
    return words;
  }
  for (int i = 1; i < count; ++i) words.push_back(WideText::ToUtf8(wide[i]));
  LocalFree(wide);
  return words;
}

}  // namespace Tovrel
