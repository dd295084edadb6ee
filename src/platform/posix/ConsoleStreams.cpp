#include "platform/ConsoleStreams.h"

#include <unistd.h>

namespace Tovrel {

bool ConsoleStreams::IsTerminal(Stream stream) {
  return isatty(stream == Stream::kOutput ? STDOUT_FILENO : STDERR_FILENO) == 1;
}

void ConsoleStreams::UseBinaryOutput() {}

}  // namespace Tovrel
