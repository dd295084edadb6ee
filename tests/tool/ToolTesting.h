// ToolTesting: helpers for the tests of the tovrel tool: running it in
// this process or as the built program, and making package files and
// cache folders to run it on.
#ifndef TOVREL_TESTS_TOOLTESTING_H
#define TOVREL_TESTS_TOOLTESTING_H

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace Tovrel {
namespace Testing {

class ToolTesting {
 public:
  struct Result {
    int status;
    std::string out;
    std::string err;
  };

  // Runs the tool's entry in this process, output and messages captured.
  static Result Run(const std::vector<std::string>& words);
  // The same with standard output on a terminal.
  static Result RunOnTerminal(const std::vector<std::string>& words);
  // Runs "group command target more..." in this process.
  static Result RunOn(const std::string& group, const std::string& command, const std::filesystem::path& target,
                      const std::vector<std::string>& more = {});
  // Runs the built tovrel program (beside this test program) as a child
  // process; its output and messages go through files in `scratch`.
  static Result RunProgram(const std::vector<std::string>& words, const std::filesystem::path& scratch);
  static std::string ProgramPath();

  // PackageTesting::MakeFile at `file`.
  static std::vector<std::uint64_t> MakePackage(const std::filesystem::path& file,
                                                const std::vector<std::uint64_t>& sizes,
                                                std::uint64_t userData = 0);
  // Caches `count` effects named "fx/N" (EffectTesting::Bytes(N + 1,
  // size + N, true); every fifth one permanent) in a folder, made if
  // missing, through EffectCacheSystem, then lets the cache go.
  static void MakeCache(const std::filesystem::path& folder, std::uint32_t count, std::size_t size);

  // Where byte `at` of a stream lies in its package file.
  static std::uint64_t FileOffsetOf(const std::filesystem::path& file, std::uint64_t stream, std::uint64_t at);
  // Adds a stream of `size` bytes to a package file and saves.
  static std::uint64_t AddStream(const std::filesystem::path& file, std::uint64_t size);

  // Inverts `count` bytes of a file from `offset` on.
  static void FlipBytes(const std::filesystem::path& file, std::uint64_t offset, std::uint64_t count);
  static std::vector<std::uint8_t> ReadFile(const std::filesystem::path& file);
  static std::string Utf8(const std::filesystem::path& path);
  // True when `text` holds `part`.
  static bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
  }
};

}  // namespace Testing
}  // namespace Tovrel

#endif
