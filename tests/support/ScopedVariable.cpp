#include "support/ScopedVariable.h"

#include <cstdlib>

namespace Tovrel {
namespace Testing {

ScopedVariable::ScopedVariable(const std::string& name, const char* value) : name_(name) {
  const char* now = std::getenv(name.c_str());
  had_ = now != nullptr;
  if (had_) previous_ = now;
  const std::string text = value != nullptr ? value : "";
  Set(name_, value != nullptr ? &text : nullptr);
}

ScopedVariable::~ScopedVariable() { Set(name_, had_ ? &previous_ : nullptr); }

void ScopedVariable::Set(const std::string& name, const std::string* value) {
#if defined(_WIN32)
  // An empty value unsets it there.
  _putenv_s(name.c_str(), value != nullptr ? value->c_str() : "");
#else
  if (value != nullptr) {
    setenv(name.c_str(), value->c_str(), 1);
  } else {
    unsetenv(name.c_str());
  }
#endif
}

}  // namespace Testing
}  // namespace Tovrel
