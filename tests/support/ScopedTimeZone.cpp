#include "support/ScopedTimeZone.h"

#include "support/ScopedVariable.h"

#include <cstdlib>
#include <ctime>

namespace Tovrel {
namespace Testing {

ScopedTimeZone::ScopedTimeZone(const std::string& rule) {
  const char* now = std::getenv("TZ");
  had_ = now != nullptr;
  if (had_) previous_ = now;
  Set(&rule);
}

ScopedTimeZone::~ScopedTimeZone() { Set(had_ ? &previous_ : nullptr); }

void ScopedTimeZone::Set(const std::string* value) {
  ScopedVariable::Set("TZ", value);
#if defined(_WIN32)
  _tzset();
#else
  tzset();
#endif
}

}  // namespace Testing
}  // namespace Tovrel
