// Entry point of every test program. Run with "--tovrel-child=NAME ..." it
// plays the child process NAME (registered with ChildProcess) instead of
// running the tests, so that multi-process tests re-launch their own binary.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/ChildProcess.h"

int main(int argc, char** argv) {
  static const char kSwitch[] = "--tovrel-child=";
  if (argc >= 2 && std::strncmp(argv[1], kSwitch, sizeof(kSwitch) - 1) == 0) {
    return Tovrel::Testing::ChildProcess::RunChild(argv[1] + sizeof(kSwitch) - 1, argc - 2, argv + 2);
  }
  Tovrel::Testing::ChildProcess::SetSelf(argv[0]);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
