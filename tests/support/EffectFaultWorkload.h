// EffectFaultWorkload: two host objects share one cache folder, caching,
// searching and saving in seeded rounds, while one file call fails with a
// chosen error (EIO, EMFILE, ...) or one allocation throws std::bad_alloc;
// then, the fault gone, a third object and the first two save more. At the
// end a fresh object must find every effect that a completed save stored
// (the version of the last such save, or one a later save attempted, which
// may have passed its commit point before it failed), and every search on
// the way must have found bytes some save stored under that name.
//
// A save counts as completed when, after ForceSaveToFile, the object is
// enabled and holds nothing in memory. The size limit is high enough that
// nothing is trimmed. Runs on whatever file system is current (tests
// install the in-memory one).
//
// Owned by its test. Thread-safety: one thread.
#ifndef TOVREL_TESTS_EFFECTFAULTWORKLOAD_H
#define TOVREL_TESTS_EFFECTFAULTWORKLOAD_H

#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>

namespace Tovrel {

class EffectCacheImpl;

namespace Testing {

class EffectFaultWorkload {
 public:
  enum class Fault { kNone, kFileCall, kAllocation };

  EffectFaultWorkload(std::wstring folder, std::uint32_t seed);

  // Runs the whole workload with the fault armed at the nth file call (of
  // any kind, failing with `error`) or the nth allocation of the faulted
  // part; "" when everything holds, else what went wrong.
  std::string Run(Fault fault, std::uint64_t n, int error);
  // What the faulted part of the last run made: file calls, allocations.
  std::uint64_t FileCalls() const { return fileCalls_; }
  std::uint64_t Allocations() const { return allocations_; }

  static constexpr int kRounds = 6;

 private:
  // What a name may hold: one of `acceptable` (the versions the last
  // completed save that stored it may have stored, and those attempted by
  // later saves, which may have passed their commit point before they
  // failed); absent only when no completed save is known to have stored it.
  struct Versions {
    bool required = false;
    std::set<std::uint64_t> acceptable;
  };
  // What a host object may hold in memory for a name: one of `digests`,
  // or (orNone) nothing, when a failed allocation left it open whether
  // the name was queued.
  struct Candidates {
    std::set<std::uint64_t> digests;
    bool orNone = false;
  };
  struct Host {
    std::unique_ptr<EffectCacheImpl> cache;
    std::string prefix;
    std::map<std::string, Candidates> pending;
  };

  void Open(Host& host);
  void CacheSome(Host& host, int count, int names);
  void Save(Host& host);
  void SearchSome(Host& host);
  void Round(Host& a, Host& b);
  void MoreSaves(Host& a, Host& b);
  std::string Check();
  bool Acceptable(const std::string& name, std::uint64_t digest, const Host* searcher) const;

  std::wstring folder_;
  std::uint32_t seed_;
  std::mt19937 random_;
  std::map<std::string, Versions> ledger_;
  std::string wrong_;  // the first thing found wrong
  std::uint64_t fileCalls_ = 0;
  std::uint64_t allocations_ = 0;
};

}  // namespace Testing
}  // namespace Tovrel

#endif
