// OpenHandles: how many files, folders and other system objects this
// process holds open, so that a test can tell that an operation that
// failed half way (no memory, a failed call) let go of all it opened.
//
// Stateless. Thread-safety: any thread; the count is only meaningful when
// no other thread opens or closes anything meanwhile.
#ifndef TOVREL_TESTS_OPENHANDLES_H
#define TOVREL_TESTS_OPENHANDLES_H

#include <cstddef>

namespace Tovrel {
namespace Testing {

class OpenHandles {
 public:
  // Open descriptors (/proc/self/fd) on Linux, the handle count on Windows.
  static std::size_t Count();
};

}  // namespace Testing
}  // namespace Tovrel

#endif
