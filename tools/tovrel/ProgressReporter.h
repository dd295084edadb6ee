// ProgressReporter: "label: done/total (pct %)" on the messages of a
// console, for work that may take a while; "label: done" while the total
// is not known (0).
//
// Nothing is drawn unless the messages go to a terminal, and nothing
// before the work has run for a second: short work and output that a
// script reads stay clean. Once shown, the line is redrawn at most ten
// times a second and wiped when the reporter dies (or on Finish), so the
// next output starts on a clean line. The clock can be replaced, so that
// tests can say when a second has passed.
//
// Owned by the command doing the work, for its duration; the console
// must outlive it. Thread-safety: none.
#ifndef TOVREL_TOOL_PROGRESSREPORTER_H
#define TOVREL_TOOL_PROGRESSREPORTER_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "Console.h"

namespace Tovrel {
namespace Tool {

class ProgressReporter {
 public:
  using Clock = std::chrono::steady_clock;
  using Now = std::function<Clock::time_point()>;

  static constexpr std::chrono::milliseconds kQuietTime{1000};
  static constexpr std::chrono::milliseconds kRedrawInterval{100};

  ProgressReporter(const Console& console, std::string label, std::uint64_t total, Now now = &Clock::now);
  ~ProgressReporter();
  ProgressReporter(const ProgressReporter&) = delete;
  ProgressReporter& operator=(const ProgressReporter&) = delete;

  // Records that `done` of the total are done, drawing when it is time.
  void Update(std::uint64_t done);
  // The same, with the total learnt on the way (a listing read).
  void Update(std::uint64_t done, std::uint64_t total);
  // Wipes the line if one was drawn; later updates draw nothing.
  void Finish();
  bool HasShown() const { return shown_; }

 private:
  void Draw(std::uint64_t done);

  const Console& console_;
  std::string label_;
  std::uint64_t total_;
  Now now_;
  Clock::time_point start_;
  Clock::time_point lastDrawn_;
  std::size_t drawnWidth_;  // characters of the line on screen; 0 when none
  bool shown_;
  bool finished_;
};

}  // namespace Tool
}  // namespace Tovrel

#endif
