// TestRun: what a run of the tests demands of a test whose setup cannot be
// had here (a server that does not start, a mount that cannot be made).
//
// The project's own test runs (tools/test.sh, and so CI) set the
// environment variable CI to "true": there such a test fails, with the
// reason, so that a broken setup cannot switch tests off while the run
// stays green. Elsewhere (a developer's machine without nginx, say) it is
// skipped, with the reason. Stateless; safe from any thread that does not
// change the environment.
#ifndef TOVREL_TESTS_TESTRUN_H
#define TOVREL_TESTS_TESTRUN_H

#include <gtest/gtest.h>

namespace Tovrel {
namespace Testing {

class TestRun {
 public:
  // True when CI is "true": every test's setup must be had.
  static bool EverySetupRequired();
};

}  // namespace Testing
}  // namespace Tovrel

// Ends the running test for want of its setup, `why` saying what is
// missing: a failure where every setup is required, a skip elsewhere.
#define TOVREL_SKIP_OR_FAIL(why)                                                     \
  do {                                                                               \
    if (::Tovrel::Testing::TestRun::EverySetupRequired()) {                          \
      FAIL() << (why) << " (CI=true: this test must run)";                           \
    }                                                                                \
    GTEST_SKIP() << (why);                                                           \
  } while (false)

#endif
