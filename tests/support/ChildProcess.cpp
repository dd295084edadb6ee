#include "support/ChildProcess.h"

#include <map>

namespace Tovrel {
namespace Testing {

namespace {

std::map<std::string, ChildProcess::Role>& Roles() {
  static std::map<std::string, ChildProcess::Role> roles;
  return roles;
}

std::string& SelfPath() {
  static std::string self;
  return self;
}

}  // namespace

bool ChildProcess::Register(const char* name, Role role) {
  Roles()[name] = role;
  return true;
}

int ChildProcess::RunChild(const char* name, int argc, char** argv) {
  const auto found = Roles().find(name);
  return found == Roles().end() ? 99 : found->second(argc, argv);
}

void ChildProcess::SetSelf(const char* path) { SelfPath() = path; }

const std::string& ChildProcess::Self() { return SelfPath(); }

}  // namespace Testing
}  // namespace Tovrel
