// PackageCrashWorkload: rounds of stream changes on a package file: streams
// created with seeded bytes, rewritten, removed (their tails closed up in
// their child files), the user data changed, then a save.
//
// Every round changes the user data (its first 8 bytes are the round), so
// that every round's save writes the directory. A small page cache makes
// pages leave it, and reach the file, in the middle of rounds. With
// compactions, every third round compacts the file instead (pages moved,
// tails packed, the file cut; its content unchanged), after rounds of more
// changes that leave free pages and half-empty child files behind.
// Owned by its test. Thread-safety: one thread.
#ifndef TOVREL_TESTS_PACKAGECRASHWORKLOAD_H
#define TOVREL_TESTS_PACKAGECRASHWORKLOAD_H

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "support/CrashWorkload.h"
#include "tovrel/IDataStreamSet.h"

namespace Tovrel {
namespace Testing {

class PackageCrashWorkload : public CrashWorkload {
 public:
  PackageCrashWorkload(std::wstring path, std::uint32_t seed, int rounds, bool compactions = false);

  void Run(const std::function<void(int round)>& saved,
           const std::function<void(int round, const State& state)>& state) override;
  State Read() override;
  std::wstring PackageFile() const override { return path_; }
  int Rounds() const override { return rounds_; }

 private:
  State Model() const;
  bool Change(IDataStreamSet& package, std::mt19937& random, int round);

  std::wstring path_;
  std::uint32_t seed_;
  int rounds_;
  bool compactions_;
  std::map<std::uint64_t, std::vector<std::uint8_t>> streams_;  // what the last save holds, and more
  std::vector<std::uint8_t> userData_;
};

}  // namespace Testing
}  // namespace Tovrel

#endif
