// ConsoleStreams: what a command-line program needs to know about its
// standard output and standard error: whether a person is watching them
// (a terminal, where progress may be drawn) and how bytes reach them.
//
// IsTerminal asks isatty (POSIX) or _isatty (Windows) of the stream's
// descriptor. UseBinaryOutput makes standard output pass bytes unchanged
// (Windows otherwise turns "\n" into "\r\n"); it does nothing on POSIX.
// Stateless; call from the program's main thread before writing.
#ifndef TOVREL_PLATFORM_CONSOLESTREAMS_H
#define TOVREL_PLATFORM_CONSOLESTREAMS_H

namespace Tovrel {

class ConsoleStreams {
 public:
  enum class Stream { kOutput, kError };

  static bool IsTerminal(Stream stream);
  static void UseBinaryOutput();
};

}  // namespace Tovrel

#endif
