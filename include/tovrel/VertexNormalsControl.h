// VertexNormalsControl: a small settings record of the host's, exported so
// that the host can build it through the library. Nothing in the library
// uses it. The default constructor switches the setting on and clears the
// pointer-sized field. Plain value; thread-safety as any value.
#ifndef TOVREL_VERTEXNORMALSCONTROL_H
#define TOVREL_VERTEXNORMALSCONTROL_H

#include "tovrel/export.h"

namespace Tovrel {

class VertexNormalsControl {
 public:
  TOVREL_API VertexNormalsControl();

  bool enabled;    // true after default construction
  void* userData;  // null after default construction
};

}  // namespace Tovrel

#endif
