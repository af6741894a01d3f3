#include "live/meter_line.h"

#include <algorithm>

#include "formatted.h"

namespace se_tool {
namespace {

constexpr int kBarCells = 12;
constexpr float kDbPerCell = 5;  // the bar ends at full scale

std::string level(const char* name, float db) {
  const int filled = std::clamp(static_cast<int>(kBarCells + db / kDbPerCell), 0, kBarCells);
  std::string bar(static_cast<std::size_t>(filled), '#');
  bar.resize(kBarCells, '.');
  return std::string(name) + " [" + bar + "]" +
         formatted("%4.0f dB", static_cast<double>(std::max(db, -99.0f)));
}

}  // namespace

std::string format_meters(const SEStreamStatus& status, bool has_reference) {
  const std::string levels = level("mic", status.mic_db) + "  " + level("out", status.out_db);
  if (!has_reference) return levels;
  const std::string delay = status.delay_found != 0
                                ? formatted("%.0f ms", static_cast<double>(status.delay_ms))
                                : "searched";
  return levels + "  " + level("ref", status.ref_db) + "  delay " + delay +
         formatted("  echo reduced %.0f dB", static_cast<double>(status.echo_reduction_db));
}

void MeterLine::update() {
  if (!line_.is_due()) return;
  SEStreamStatus status;
  se_stream_get_status(stream_, &status);
  line_.draw(format_meters(status, has_reference_));
}

}  // namespace se_tool
