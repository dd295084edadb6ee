#include "platform/ConsoleStreams.h"

#include <fcntl.h>
#include <io.h>

#include <cstdio>

namespace Tovrel {

bool ConsoleStreams::IsTerminal(Stream stream) {
  return _isatty(_fileno(stream == Stream::kOutput ? stdout : stderr)) != 0;
}

void ConsoleStreams::UseBinaryOutput() {
  std::fflush(stdout);
  _setmode(_fileno(stdout), _O_BINARY);
}

}  // namespace Tovrel
