#include "ToolError.h"

#include <cassert>

#include "ExitStatus.h"

namespace Tovrel {
namespace Tool {

ToolError::ToolError(int status, const std::string& message) : std::runtime_error(message), status_(status) {
  assert(status != ExitStatus::kOk);
}

}  // namespace Tool
}  // namespace Tovrel
