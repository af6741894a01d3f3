#include "live/meter_line.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace se_tool {
namespace {

constexpr auto kRedraw = std::chrono::milliseconds(100);
constexpr int kBarCells = 12;
constexpr float kDbPerCell = 5;  // the bar ends at full scale

std::string level(const char* name, float db) {
  const int filled = std::clamp(static_cast<int>(kBarCells + db / kDbPerCell), 0, kBarCells);
  std::string bar(static_cast<std::size_t>(filled), '#');
  bar.resize(kBarCells, '.');
  char number[16];
  std::snprintf(number, sizeof number, "%4.0f dB", static_cast<double>(std::max(db, -99.0f)));
  return std::string(name) + " [" + bar + "]" + number;
}

}  // namespace

std::string format_meters(const SEStreamStatus& status, bool has_reference) {
  const std::string levels = level("mic", status.mic_db) + "  " + level("out", status.out_db);
  if (!has_reference) return levels;
  char delay[32] = "searched";
  if (status.delay_found != 0) {
    std::snprintf(delay, sizeof delay, "%.0f ms", static_cast<double>(status.delay_ms));
  }
  char echo[32];
  std::snprintf(echo, sizeof echo, "%.0f dB", static_cast<double>(status.echo_reduction_db));
  return levels + "  " + level("ref", status.ref_db) + "  delay " + delay + "  echo reduced " +
         echo;
}

MeterLine::MeterLine(const SEStream* stream, bool has_reference, bool quiet)
    : stream_(stream),
      has_reference_(has_reference),
      visible_(!quiet && isatty(STDERR_FILENO) == 1) {}

MeterLine::~MeterLine() {
  if (drawn_) std::fputs("\r\033[K", stderr);
}

void MeterLine::update() {
  const Clock::time_point now = Clock::now();
  if (!visible_ || now - last_ < kRedraw) return;
  last_ = now;
  drawn_ = true;
  SEStreamStatus status;
  se_stream_get_status(stream_, &status);
  std::fprintf(stderr, "\r%s\033[K", format_meters(status, has_reference_).c_str());
  std::fflush(stderr);
}

}  // namespace se_tool
