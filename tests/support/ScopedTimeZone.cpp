#include "support/ScopedTimeZone.h"

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
#if defined(_WIN32)
  _putenv_s("TZ", value != nullptr ? value->c_str() : "");
  _tzset();
#else
  if (value != nullptr) {
    setenv("TZ", value->c_str(), 1);
  } else {
    unsetenv("TZ");
  }
  tzset();
#endif
}

}  // namespace Testing
}  // namespace Tovrel
