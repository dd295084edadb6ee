#include "ProgressReporter.h"

#include <cstdio>

#include "TextFormat.h"

namespace Tovrel {
namespace Tool {

constexpr std::chrono::milliseconds ProgressReporter::kQuietTime;
constexpr std::chrono::milliseconds ProgressReporter::kRedrawInterval;

ProgressReporter::ProgressReporter(const Console& console, std::string label, std::uint64_t total, Now now)
    : console_(console),
      label_(std::move(label)),
      total_(total),
      now_(std::move(now)),
      start_(now_()),
      lastDrawn_(start_),
      drawnWidth_(0),
      shown_(false),
      finished_(false) {}

ProgressReporter::~ProgressReporter() { Finish(); }

void ProgressReporter::Update(std::uint64_t done, std::uint64_t total) {
  total_ = total;
  Update(done);
}

void ProgressReporter::Update(std::uint64_t done) {
  if (finished_ || !console_.MessagesOnTerminal()) return;
  const Clock::time_point now = now_();
  if (now - start_ < kQuietTime) return;
  if (shown_ && now - lastDrawn_ < kRedrawInterval && (total_ == 0 || done < total_)) return;
  lastDrawn_ = now;
  Draw(done);
}

void ProgressReporter::Draw(std::uint64_t done) {
  char percent[16] = "";
  if (total_ > 0) std::snprintf(percent, sizeof percent, " (%d %%)", static_cast<int>(100.0 * done / total_));
  const std::string line =
      label_ + ": " + TextFormat::Count(done) + (total_ > 0 ? "/" + TextFormat::Count(total_) : std::string()) + percent;
  std::string padded = line;
  if (padded.size() < drawnWidth_) padded.resize(drawnWidth_, ' ');
  console_.Err() << "\r" << padded << std::flush;
  drawnWidth_ = line.size();
  shown_ = true;
}

void ProgressReporter::Finish() {
  if (finished_) return;
  finished_ = true;
  if (drawnWidth_ == 0) return;
  console_.Err() << "\r" << std::string(drawnWidth_, ' ') << "\r" << std::flush;
  drawnWidth_ = 0;
}

}  // namespace Tool
}  // namespace Tovrel
