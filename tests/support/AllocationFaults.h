// AllocationFaults: makes a chosen allocation of the calling thread fail
// with std::bad_alloc, and measures the allocations of a step, for tests
// of what survives a failed allocation and of what a step reserves.
//
// The test programs replace the global operator new and delete (in
// AllocationFaults.cpp) with versions that ask this class first. Only the
// thread that armed a fault or started counting is affected; with nothing
// armed, an allocation costs one check of a thread-local flag.
//
// Process-wide code, per-thread state. Thread-safety: every member acts on
// the calling thread's own state.
#ifndef TOVREL_TESTS_ALLOCATIONFAULTS_H
#define TOVREL_TESTS_ALLOCATIONFAULTS_H

#include <cstddef>
#include <cstdint>

namespace Tovrel {
namespace Testing {

class AllocationFaults {
 public:
  // Zeroes this thread's counts and starts counting its allocations.
  static void StartCounting();
  // The nth allocation (1 = the next) of this thread throws std::bad_alloc
  // (once); counting starts anew.
  static void FailNth(std::uint64_t n);
  // Stops counting and disarms; the counts stay readable.
  static void Stop();
  // Allocations of this thread since counting started.
  static std::uint64_t Count();
  // The largest single allocation, in bytes, since counting started.
  static std::size_t Largest();
  // True when the armed failure has happened.
  static bool Fired();

  // Called by the replaced operator new: counts, and throws when armed.
  static void OnAllocation(std::size_t size);
};

// Leaves the calling thread's allocations uncounted (and unfailed) for its
// life, so that a test's own bookkeeping never meets the armed failure.
class AllocationFaultPause {
 public:
  AllocationFaultPause();
  ~AllocationFaultPause();
  AllocationFaultPause(const AllocationFaultPause&) = delete;
  AllocationFaultPause& operator=(const AllocationFaultPause&) = delete;

 private:
  bool counting_;
};

// Arms nothing itself: stops counting and disarms when it goes, so that a
// failed assertion never leaves a fault armed for the next test.
class AllocationFaultScope {
 public:
  AllocationFaultScope() = default;
  ~AllocationFaultScope() { AllocationFaults::Stop(); }
  AllocationFaultScope(const AllocationFaultScope&) = delete;
  AllocationFaultScope& operator=(const AllocationFaultScope&) = delete;
};

}  // namespace Testing
}  // namespace Tovrel

#endif
