// ChildLauncher: runs this test program again as a child process that plays
// a role registered with TOVREL_CHILD_ROLE, and waits for it within a bound,
// so that a hung child fails a test instead of hanging it.
//
// Children talk back through their exit code and through marker files.
// Stateless; call from the test's thread.
#ifndef TOVREL_TESTS_CHILDLAUNCHER_H
#define TOVREL_TESTS_CHILDLAUNCHER_H

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platform/PlatformProcess.h"

namespace Tovrel {
namespace Testing {

class ChildLauncher {
 public:
  // How long a child may take before it counts as hung.
  static constexpr std::uint32_t kBoundMilliseconds = 120000;
  // Finish's answer for a child that did not end within the bound.
  static constexpr int kHung = -1;

  // Starts `program` with `arguments`; null when the system refused five
  // tries, 200 ms apart (wine, with another test program starting its own
  // children at the same time, now and then refuses one for a moment). The
  // child's output and errors go to the files named (see
  // PlatformProcess::RedirectOutput), or to this program's own streams for
  // an empty name.
  static std::unique_ptr<PlatformProcess> StartProgram(const std::string& program,
                                                       const std::vector<std::string>& arguments,
                                                       const std::string& outputFile = std::string(),
                                                       const std::string& errorFile = std::string());
  // StartProgram of this program as "--tovrel-child=role arguments...".
  static std::unique_ptr<PlatformProcess> Start(const std::string& role, const std::vector<std::string>& arguments,
                                                const std::string& outputFile = std::string(),
                                                const std::string& errorFile = std::string());
  // The child's exit code, or kHung (the child is killed then).
  static int Finish(PlatformProcess& child, std::uint32_t boundMilliseconds = kBoundMilliseconds);
  // Waits until `file` exists; false when the child ends first or the bound passes.
  static bool WaitForFile(const std::filesystem::path& file, PlatformProcess& child);
  // Waits until `file` exists; false when the bound passes.
  static bool WaitForFile(const std::filesystem::path& file);
  // Creates the (empty) marker file.
  static void Signal(const std::filesystem::path& file);

  // A name that no other running test program uses: stem, process id, serial.
  static std::string UniqueName(const std::string& stem);
  static std::wstring UniqueWideName(const std::string& stem);
  // UTF-8 <-> wide, for names passed on a child's command line.
  static std::wstring Wide(const std::string& text);
  static std::string Narrow(const std::wstring& text);
};

}  // namespace Testing
}  // namespace Tovrel

#endif
