#include "support/CrashRunner.h"

#include <cstdlib>
#include <cstring>
#include <sstream>

#include "package/PackageVerifier.h"
#include "platform/FileFaults.h"
#include "support/InstalledFileSystem.h"

namespace Tovrel {
namespace Testing {

CrashRunner::Reference CrashRunner::Measure(const Factory& make) {
  Reference reference;
  std::unique_ptr<CrashWorkload> workload = make();
  FileFaults::StartCounting();
  workload->Run([&](int) { reference.savedAt.push_back(FileFaults::Calls(FileCall::kAny)); },
                [&](int, const CrashWorkload::State& state) { reference.states.push_back(state); });
  reference.calls = FileFaults::Calls(FileCall::kAny);
  FileFaults::Reset();
  return reference;
}

std::string CrashRunner::CrashInMemory(const Factory& make, const Reference& reference, std::uint64_t n, Crash crash,
                                       std::uint32_t seed) {
  InstalledFileSystem files;
  {
    std::unique_ptr<CrashWorkload> workload = make();
    FileFaults::StartCounting();
    FileFaults::CutPowerAtNth(FileCall::kAny, n);
    workload->Run([](int) {}, [](int, const CrashWorkload::State&) {});
  }
  const bool cut = files.Memory().IsPowerCut();
  FileFaults::Reset();
  if (!cut) return "the run ended before call " + std::to_string(n);
  if (crash == Crash::kPowerLoss) {
    files.Memory().RestorePower(seed);
  } else {
    files.Memory().EndProcess();
  }
  std::unique_ptr<CrashWorkload> reader = make();
  const std::string wrong = Check(reference, n, reader->Read());
  return wrong.empty() ? Verify(reader->PackageFile(), n) : wrong;
}

std::string CrashRunner::Verify(const std::wstring& file, std::uint64_t n) {
  // A file a crash left is sound once it has been opened: every table
  // agrees with every other and with the file.
  const PackageVerifier::FileReport report = PackageVerifier::VerifyFile(file.c_str());
  if (report.outcome != PackageVerifier::Outcome::kChecked || report.problems.empty()) return "";
  std::ostringstream out;
  out << "crash before call " << n << ": the package the crash left is unsound: " << report.problems[0] << " ("
      << report.problems.size() << " problems)";
  return out.str();
}

std::string CrashRunner::Check(const Reference& reference, std::uint64_t n, const CrashWorkload::State& after) {
  // The last save that had returned before call n, and the one under way.
  int done = -1;
  for (std::size_t r = 0; r < reference.savedAt.size(); ++r) {
    if (reference.savedAt[r] < n) done = static_cast<int>(r);
  }
  const bool unreadable = after.size() == 1 && after.count(CrashWorkload::kUnreadable) == 1;
  if (done < 0 && (unreadable || (!reference.states.empty() && after == reference.states[0]))) return "";
  if (done >= 0 && after == reference.states[static_cast<std::size_t>(done)]) return "";
  if (done + 1 < static_cast<int>(reference.states.size()) && after == reference.states[static_cast<std::size_t>(done + 1)]) {
    return "";
  }
  std::ostringstream out;
  out << "crash before call " << n << " (after save " << done << "): the file holds " << CrashWorkload::Describe(after);
  if (done >= 0) out << "\n  but the last save left " << CrashWorkload::Describe(reference.states[static_cast<std::size_t>(done)]);
  return out.str();
}

bool CrashRunner::Exhaustive() {
  const char* value = std::getenv("TOVREL_CRASH_EXHAUSTIVE");
  return value != nullptr && std::strcmp(value, "1") == 0;
}

std::vector<std::uint32_t> CrashRunner::Seeds(const std::vector<std::uint32_t>& defaults, std::uint32_t first) {
  const char* value = std::getenv("TOVREL_CRASH_SEEDS");
  const long count = value != nullptr ? std::strtol(value, nullptr, 10) : 0;
  if (count <= 0) return defaults;
  std::vector<std::uint32_t> seeds;
  for (long i = 0; i < count; ++i) seeds.push_back(first + static_cast<std::uint32_t>(i));
  return seeds;
}

std::vector<std::uint64_t> CrashRunner::Points(std::uint64_t calls, std::size_t sample, std::uint32_t seed) {
  std::vector<std::uint64_t> points;
  if (calls == 0) return points;
  if (Exhaustive() || calls <= sample) {
    for (std::uint64_t n = 1; n <= calls; ++n) points.push_back(n);
    return points;
  }
  const double step = static_cast<double>(calls) / static_cast<double>(sample);
  const double offset = static_cast<double>(seed % 1000) / 1000.0 * step;
  points.push_back(1);
  for (std::size_t i = 1; i + 1 < sample; ++i) points.push_back(1 + static_cast<std::uint64_t>(offset + step * static_cast<double>(i)));
  points.push_back(calls);
  return points;
}

}  // namespace Testing
}  // namespace Tovrel
