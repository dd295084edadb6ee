#include "support/TestRun.h"

#include <cstdlib>
#include <cstring>

namespace Tovrel {
namespace Testing {

bool TestRun::EverySetupRequired() {
  const char* value = std::getenv("CI");
  return value != nullptr && std::strcmp(value, "true") == 0;
}

}  // namespace Testing
}  // namespace Tovrel
