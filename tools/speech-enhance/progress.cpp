#include "progress.h"

#include <algorithm>
#include <cmath>

#include "formatted.h"

namespace se_tool {
namespace {

constexpr int kBarCells = 24;
// Before that an estimate would jump about.
constexpr double kSecondsToEstimate = 0.5;

}  // namespace

std::string format_progress(const std::string& what, double fraction, double elapsed_s) {
  const int filled = static_cast<int>(fraction * kBarCells);
  const std::string bar = std::string(static_cast<std::size_t>(filled), '#') +
                          std::string(static_cast<std::size_t>(kBarCells - filled), '.');
  const std::string line =
      what + "  [" + bar + "]" + formatted(" %3d %%", static_cast<int>(std::floor(fraction * 100)));
  if (elapsed_s < kSecondsToEstimate || fraction <= 0) return line;
  const long left = std::lround(std::ceil(elapsed_s * (1 - fraction) / fraction));
  return line + formatted("  %ld:%02ld left", left / 60, left % 60);
}

void ProgressLine::update(double fraction) {
  if (!line_.is_due()) return;
  const double elapsed_s = std::chrono::duration<double>(Clock::now() - start_).count();
  line_.draw(format_progress(what_, std::clamp(fraction, 0.0, 1.0), elapsed_s));
}

}  // namespace se_tool
