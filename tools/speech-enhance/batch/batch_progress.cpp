#include "batch/batch_progress.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "console.h"

namespace se_tool {
namespace {

constexpr double kRedrawSeconds = 0.2;
// Before that a rate would jump about.
constexpr double kSecondsToEstimate = 1;

std::string clock_time(double seconds) {
  const long whole = std::lround(std::ceil(seconds));
  char text[48];
  std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", whole / 3600, whole / 60 % 60, whole % 60);
  return text;
}

}  // namespace

std::string format_duration(double seconds) {
  char text[48];
  if (seconds < 60) {
    std::snprintf(text, sizeof text, "%.1f s", seconds);
  } else if (seconds < 3600) {
    std::snprintf(text, sizeof text, "%.1f min", seconds / 60);
  } else {
    std::snprintf(text, sizeof text, "%.1f h", seconds / 3600);
  }
  return text;
}

std::string format_batch_progress(const BatchCounts& counts, std::uint64_t lines, double total_s,
                                  double elapsed_s) {
  std::string text = std::to_string(counts.lines()) + " of " + std::to_string(lines) + " files";
  if (counts.audio_s > 0) text += ", " + format_duration(counts.audio_s) + " of audio";
  if (counts.failed > 0) text += ", " + std::to_string(counts.failed) + " failed";
  if (elapsed_s < kSecondsToEstimate || counts.worked_s <= 0) return text;
  char rates[96];
  std::snprintf(rates, sizeof rates, ", %.1f files/s, %.0f x real time",
                static_cast<double>(counts.done + counts.failed) / elapsed_s,
                counts.audio_s / elapsed_s);
  const double left_s = std::max(0.0, total_s - counts.weight_s);
  return text + rates + ", " + clock_time(left_s / (counts.worked_s / elapsed_s)) + " left";
}

BatchProgress::BatchProgress(std::uint64_t lines, double total_s, double report_s, bool quiet)
    : lines_(lines), total_s_(total_s), quiet_(quiet), terminal_(isatty(STDERR_FILENO) == 1) {
  interval_s_ = terminal_ ? kRedrawSeconds : report_s;
}

double BatchProgress::elapsed_s() const {
  return std::chrono::duration<double>(Clock::now() - start_).count();
}

void BatchProgress::update(const BatchCounts& counts) {
  const Clock::time_point now = Clock::now();
  if (quiet_ || std::chrono::duration<double>(now - last_).count() < interval_s_) return;
  last_ = now;
  const std::string text = format_batch_progress(counts, lines_, total_s_, elapsed_s());
  if (!terminal_) {
    print_line(text);
    return;
  }
  drawn_ = true;
  // Back to the start of the line, and clear what is longer from before.
  std::fprintf(stderr, "\r%s\033[K", text.c_str());
  std::fflush(stderr);
}

void BatchProgress::clear() {
  if (!drawn_) return;
  drawn_ = false;
  std::fputs("\r\033[K", stderr);
  std::fflush(stderr);
}

}  // namespace se_tool
