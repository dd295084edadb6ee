// CrashRunner: interrupts a CrashWorkload at a chosen file call and checks
// what the file holds afterwards.
//
// A reference run counts the workload's file calls and records the state
// each completed save left, and the call count at which each save
// returned. A crash at call n (just before it) happens in one of three
// ways: the power goes (in memory: then a seeded subset of the writes not
// yet synced is dropped and one is torn), the process dies with the files
// in memory (every write that was made stays), or a child process running
// the same workload on the disk ends itself at that call. Afterwards the
// file must hold exactly the state of the last save that returned, or of
// the save that was under way if the crash came after its commit point;
// never anything between.
//
// Stateless; one thread.
#ifndef TOVREL_TESTS_CRASHRUNNER_H
#define TOVREL_TESTS_CRASHRUNNER_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/CrashWorkload.h"

namespace Tovrel {
namespace Testing {

class CrashRunner {
 public:
  using Factory = std::function<std::unique_ptr<CrashWorkload>()>;
  enum class Crash { kPowerLoss, kProcessDeath };

  struct Reference {
    std::vector<CrashWorkload::State> states;  // by round
    std::vector<std::uint64_t> savedAt;        // file calls made when each round's save returned
    std::uint64_t calls = 0;                   // file calls of the whole run
  };

  // Runs the workload once, unharmed, on whatever file system is current.
  static Reference Measure(const Factory& make);
  // Runs the workload in a fresh in-memory file system, crashes it just
  // before file call n, recovers, and checks (the state read, then the
  // file with the deep verifier); "" when the file is as it must be, else
  // what is wrong.
  static std::string CrashInMemory(const Factory& make, const Reference& reference, std::uint64_t n, Crash crash,
                                   std::uint32_t seed);
  // Checks the state read after a crash at call n.
  static std::string Check(const Reference& reference, std::uint64_t n, const CrashWorkload::State& after);
  // Checks the package file left after a crash at call n (and opened
  // since) with the deep verifier; "" when it is sound or not a package.
  static std::string Verify(const std::wstring& file, std::uint64_t n);
  // The calls to crash at: all of 1..calls when the environment variable
  // TOVREL_CRASH_EXHAUSTIVE is 1, else at most `sample` of them, spread
  // evenly with a seeded offset (the first and the last always in).
  static std::vector<std::uint64_t> Points(std::uint64_t calls, std::size_t sample, std::uint32_t seed);
  static bool Exhaustive();
  // The seeds to run: `defaults`, or, when the environment variable
  // TOVREL_CRASH_SEEDS is a number n, seeds `first` to `first` + n - 1.
  static std::vector<std::uint32_t> Seeds(const std::vector<std::uint32_t>& defaults, std::uint32_t first);
};

}  // namespace Testing
}  // namespace Tovrel

#endif
