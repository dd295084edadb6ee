// EffectCrashWorkload: rounds of effects cached into a cache folder, new
// names and replaced ones, under a size limit small enough that saves trim
// the oldest effects, each round ending with ForceSaveToFile; every third
// round instead removes every other effect and compacts the file.
//
// The state after a save is what a search finds for each name of the pool.
// Saves are spread over distinct milliseconds, so that last-used times, and
// so what a trim removes, are the same in every run of the same seed.
// Owned by its test. Thread-safety: one thread.
#ifndef TOVREL_TESTS_EFFECTCRASHWORKLOAD_H
#define TOVREL_TESTS_EFFECTCRASHWORKLOAD_H

#include <cstdint>
#include <string>

#include "support/CrashWorkload.h"

namespace Tovrel {

class EffectCacheImpl;

namespace Testing {

class EffectCrashWorkload : public CrashWorkload {
 public:
  EffectCrashWorkload(std::wstring folder, std::uint32_t seed, int rounds);

  void Run(const std::function<void(int round)>& saved,
           const std::function<void(int round, const State& state)>& state) override;
  State Read() override;
  std::wstring PackageFile() const override;
  int Rounds() const override { return rounds_; }

  static constexpr int kNames = 20;
  static constexpr std::uint64_t kBytesLimit = 90000;

 private:
  static State Found(EffectCacheImpl& cache);

  std::wstring folder_;
  std::uint32_t seed_;
  int rounds_;
};

}  // namespace Testing
}  // namespace Tovrel

#endif
