// ScopedVariable: sets an environment variable of this process for a
// test's scope (or unsets it, for a null value), then puts back what was
// there. On Windows the C runtime's copy and the system's change together.
//
// Not thread-safe: the environment is the process's.
#ifndef TOVREL_TESTS_SCOPEDVARIABLE_H
#define TOVREL_TESTS_SCOPEDVARIABLE_H

#include <string>

namespace Tovrel {
namespace Testing {

class ScopedVariable {
 public:
  ScopedVariable(const std::string& name, const char* value);
  ~ScopedVariable();
  ScopedVariable(const ScopedVariable&) = delete;
  ScopedVariable& operator=(const ScopedVariable&) = delete;

  // Sets or (for null) unsets the variable.
  static void Set(const std::string& name, const std::string* value);

 private:
  std::string name_;
  bool had_;
  std::string previous_;
};

}  // namespace Testing
}  // namespace Tovrel

#endif
