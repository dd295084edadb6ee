#include "VerifyReport.h"

#include "ExitStatus.h"

namespace Tovrel {
namespace Tool {

int VerifyReport::Print(const Console& console, const std::string& name, const std::vector<std::string>& problems,
                        const std::string& checked, const std::string& note) {
  std::ostream& out = console.Out();
  if (!note.empty()) out << name << ": " << note << "\n";
  for (const std::string& problem : problems) out << name << ": " << problem << "\n";
  if (problems.empty()) {
    out << name << ": no problem found (" << checked << ")\n";
    return ExitStatus::kOk;
  }
  out << name << ": " << problems.size() << (problems.size() == 1 ? " problem\n" : " problems\n");
  return ExitStatus::kFailed;
}

}  // namespace Tool
}  // namespace Tovrel
