// ChildProcess: the registry of child-process roles of a test program.
//
// A test registers a role with TOVREL_CHILD_ROLE(name) and starts its own
// binary as "<self> --tovrel-child=name args..."; the test program's main
// then runs the role and exits with its result.
#ifndef TOVREL_TESTS_CHILDPROCESS_H
#define TOVREL_TESTS_CHILDPROCESS_H

#include <string>

namespace Tovrel {
namespace Testing {

class ChildProcess {
 public:
  using Role = int (*)(int argc, char** argv);

  static bool Register(const char* name, Role role);
  // Runs the named role; 99 when there is none.
  static int RunChild(const char* name, int argc, char** argv);
  static void SetSelf(const char* path);
  // Path of the running test program.
  static const std::string& Self();
};

}  // namespace Testing
}  // namespace Tovrel

#define TOVREL_CHILD_ROLE(name)                                                             \
  static int TovrelChildRole_##name(int argc, char** argv);                                 \
  static const bool tovrelChildRoleRegistered_##name =                                      \
      ::Tovrel::Testing::ChildProcess::Register(#name, &TovrelChildRole_##name);            \
  static int TovrelChildRole_##name(int argc, char** argv)

#endif
