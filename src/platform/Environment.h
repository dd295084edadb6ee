// Environment: reads environment variables as wide strings, as the host's
// GetEnvironmentVariableW does with a 260-character buffer: a value of 260
// characters or more does not fit and reads as absent.
// Stateless; safe from any thread that does not change the environment.
#ifndef TOVREL_PLATFORM_ENVIRONMENT_H
#define TOVREL_PLATFORM_ENVIRONMENT_H

#include <string>

namespace Tovrel {

class Environment {
 public:
  static constexpr std::size_t kBufferCharacters = 260;

  // The variable's value; empty when it is unset, empty or too long.
  static std::wstring Get(const wchar_t* name);
  // The variable's whole value, however long (for values that are not
  // paths, such as a credential); empty when it is unset or empty.
  static std::wstring GetWhole(const wchar_t* name);
};

}  // namespace Tovrel

#endif
