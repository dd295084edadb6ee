#include "VerifyReport.h"

#include "ExitStatus.h"
#include "JsonWriter.h"

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

int VerifyReport::PrintJson(const Console& console, const std::string& name, const std::vector<std::string>& problems,
                            const std::string& checked, const std::string& note) {
  JsonWriter json(console.Out());
  json.BeginObject().Field("file", name).Key("journal");
  if (note.empty()) {
    json.Null();
  } else {
    json.String(note);
  }
  json.Key("problems").BeginArray();
  for (const std::string& problem : problems) json.String(problem);
  json.EndArray().Field("checked", checked).Field("ok", problems.empty()).EndObject().Finish();
  return problems.empty() ? ExitStatus::kOk : ExitStatus::kFailed;
}

}  // namespace Tool
}  // namespace Tovrel
