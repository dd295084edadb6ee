// GraphicsHeapOperators: the graphics library's heap-operator base class.
//
// Objects of the graphics library (the reference-counted ones, the page
// cache, the multi-process memory) derive from it so that their memory is
// zero-filled before their constructors run. It adds nothing to the host's
// NorvaneHeapOperators; it exists so that each library names its own base.
// No state; thread-safety as the global heap.
#ifndef HOST_GRAPHICSHEAPOPERATORS_H
#define HOST_GRAPHICSHEAPOPERATORS_H

#include "host/NorvaneHeapOperators.h"

namespace NorvaneGraphics {

class GraphicsHeapOperators : public NorvaneHeapOperators {};

}  // namespace NorvaneGraphics

#endif
