#include "batch/batch_progress.h"

#include <algorithm>
#include <cmath>

#include "formatted.h"

namespace se_tool {
namespace {

// Before that a rate would jump about.
constexpr double kSecondsToEstimate = 1;

std::string clock_time(double seconds) {
  const long whole = std::lround(std::ceil(seconds));
  return formatted("%ld:%02ld:%02ld", whole / 3600, whole / 60 % 60, whole % 60);
}

}  // namespace

std::string format_duration(double seconds) {
  if (seconds < 60) return formatted("%.1f s", seconds);
  if (seconds < 3600) return formatted("%.1f min", seconds / 60);
  return formatted("%.1f h", seconds / 3600);
}

std::string format_batch_progress(const BatchCounts& counts, std::uint64_t lines, double total_s,
                                  double elapsed_s) {
  std::string text = std::to_string(counts.lines()) + " of " + std::to_string(lines) + " files";
  if (counts.audio_s > 0) text += ", " + format_duration(counts.audio_s) + " of audio";
  if (counts.failed > 0) text += ", " + std::to_string(counts.failed) + " failed";
  if (elapsed_s < kSecondsToEstimate || counts.worked_s <= 0) return text;
  const std::string rates = formatted(", %.1f files/s, %.0f x real time",
                                      static_cast<double>(counts.done + counts.failed) / elapsed_s,
                                      counts.audio_s / elapsed_s);
  const double left_s = std::max(0.0, total_s - counts.weight_s);
  return text + rates + ", " + clock_time(left_s / (counts.worked_s / elapsed_s)) + " left";
}

double BatchProgress::elapsed_s() const {
  return std::chrono::duration<double>(Clock::now() - start_).count();
}

void BatchProgress::update(const BatchCounts& counts) {
  const auto text = [&] { return format_batch_progress(counts, lines_, total_s_, elapsed_s()); };
  if (line_.is_due()) line_.draw(text());
  const Clock::time_point now = Clock::now();
  if (quiet_ || line_.is_shown() ||
      std::chrono::duration<double>(now - last_).count() < report_s_) {
    return;
  }
  last_ = now;
  print_line(text());
}

}  // namespace se_tool
