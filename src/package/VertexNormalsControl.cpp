#include "tovrel/VertexNormalsControl.h"

namespace Tovrel {

VertexNormalsControl::VertexNormalsControl() : enabled(true), userData(nullptr) {}

}  // namespace Tovrel
