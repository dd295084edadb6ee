// CrashWorkload: a seeded run of saves that a crash test interrupts at every
// file call, and the way to read back what the file then holds.
//
// A workload runs its rounds; each round changes the file's content and
// saves. Right after each save that completed it calls `saved(round)`
// (round 0 is the file's creation), before any further file call, and
// then `state(round, s)` with what the file must hold from now on. A run
// stops quietly at the first failure (a failed save, an exception, any
// refused call): after a crash every file call fails. Read opens the file
// afresh and tells what it holds: the same State form, so that a crash
// test compares it with the states the rounds reported.
//
// Owned by the test that makes it. Thread-safety: one thread.
#ifndef TOVREL_TESTS_CRASHWORKLOAD_H
#define TOVREL_TESTS_CRASHWORKLOAD_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace Tovrel {
namespace Testing {

class CrashWorkload {
 public:
  // Every piece of content (a stream, the user data, an effect) by name,
  // as its size and a hash of its bytes.
  using State = std::map<std::string, std::uint64_t>;
  // What Read reports for a file that cannot be opened at all.
  static constexpr const char* kUnreadable = "<unreadable>";

  virtual ~CrashWorkload() = default;
  virtual void Run(const std::function<void(int round)>& saved,
                   const std::function<void(int round, const State& state)>& state) = 0;
  virtual State Read() = 0;
  // The package file the workload writes, which the deep verifier checks
  // after every crash (once Read has opened it, and so rolled back what
  // the crash left half done).
  virtual std::wstring PackageFile() const = 0;
  virtual int Rounds() const = 0;

  // The size and a 64-bit FNV-1a hash of bytes, folded into one number.
  static std::uint64_t Digest(const std::uint8_t* bytes, std::size_t size);
  static std::string Describe(const State& state);
};

}  // namespace Testing
}  // namespace Tovrel

#endif
