#include "progress.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace se_tool {
namespace {

constexpr int kBarCells = 24;
constexpr double kRedrawSeconds = 0.1;
// Before that an estimate would jump about.
constexpr double kSecondsToEstimate = 0.5;

}  // namespace

std::string format_progress(const std::string& what, double fraction, double elapsed_s) {
  const int filled = static_cast<int>(fraction * kBarCells);
  const std::string bar = std::string(static_cast<std::size_t>(filled), '#') +
                          std::string(static_cast<std::size_t>(kBarCells - filled), '.');
  char numbers[64];
  int length = std::snprintf(numbers, sizeof numbers, " %3d %%",
                             static_cast<int>(std::floor(fraction * 100)));
  if (elapsed_s >= kSecondsToEstimate && fraction > 0) {
    const long left = std::lround(std::ceil(elapsed_s * (1 - fraction) / fraction));
    std::snprintf(numbers + length, sizeof numbers - static_cast<std::size_t>(length),
                  "  %ld:%02ld left", left / 60, left % 60);
  }
  return what + "  [" + bar + "]" + numbers;
}

ProgressLine::ProgressLine(std::string what, bool quiet)
    : what_(std::move(what)), visible_(!quiet && isatty(STDERR_FILENO) == 1) {}

void ProgressLine::update(double fraction) {
  const Clock::time_point now = Clock::now();
  const auto seconds = [&](Clock::time_point since) {
    return std::chrono::duration<double>(now - since).count();
  };
  if (!visible_ || seconds(last_) < kRedrawSeconds) return;
  last_ = now;
  drawn_ = true;
  // Back to the start of the line, and clear what is longer from before.
  std::fprintf(stderr, "\r%s\033[K",
               format_progress(what_, std::clamp(fraction, 0.0, 1.0), seconds(start_)).c_str());
  std::fflush(stderr);
}

void ProgressLine::clear() {
  if (!drawn_) return;
  drawn_ = false;
  std::fputs("\r\033[K", stderr);
  std::fflush(stderr);
}

}  // namespace se_tool
