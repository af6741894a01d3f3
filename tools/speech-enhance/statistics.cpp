#include "statistics.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>

#include "formatted.h"

namespace se_tool {
namespace {

constexpr int kEchoTailBlocks = 25;         // 250 ms
constexpr double kLoudspeakerPlays = 1e-6;  // mean square, -60 dBFS

constexpr std::size_t kLanes = 8;  // sums or maxima that do not wait for each other

double energy_of(const float* samples, std::size_t count) {
  std::array<double, kLanes> lanes = {};
  std::size_t i = 0;
  for (; i + kLanes <= count; i += kLanes) {
    for (std::size_t k = 0; k < kLanes; ++k) {
      lanes[k] += static_cast<double>(samples[i + k]) * samples[i + k];
    }
  }
  for (; i < count; ++i) lanes[0] += static_cast<double>(samples[i]) * samples[i];
  double energy = 0;
  for (const double lane : lanes) energy += lane;
  return energy;
}

float peak_of(const float* samples, std::size_t count) {
  std::array<float, kLanes> lanes = {};
  for (std::size_t i = 0; i < count; ++i) {
    float& lane = lanes[i % kLanes];
    lane = std::max(lane, std::abs(samples[i]));
  }
  return *std::max_element(lanes.begin(), lanes.end());
}

double power_db(double power) {
  return 10 * std::log10(power);
}

// A level or a difference of levels; a side that is digitally silent makes it infinite.
std::string decibels(double value, const char* unit) {
  if (std::isnan(value)) return "-";
  if (std::isinf(value)) return value < 0 ? "silence" : "to silence";
  return formatted("%.1f %s", value, unit);
}

std::string milliseconds(double value) {
  return std::isnan(value) ? "-" : formatted("%.0f ms", value);
}

std::string change(double before, double after) {
  return decibels(before, "dBFS") + " -> " + decibels(after, "dBFS");
}

}  // namespace

void LevelMeter::add_block(const float* samples, std::size_t count) {
  if (count == 0) return;
  peak_ = std::max(peak_, peak_of(samples, count));
  const double energy = energy_of(samples, count);
  energy_ += energy;
  samples_ += count;
  ++blocks_;
  const double level = power_db(energy / static_cast<double>(count));
  const double step = std::max(0.0, (level - kLowestDb) * kStepsPerDb);
  const auto last = static_cast<double>(blocks_at_level_.size() - 1);
  ++blocks_at_level_[static_cast<std::size_t>(std::min(step, last))];
}

double LevelMeter::peak_db() const {
  return power_db(static_cast<double>(peak_) * peak_);
}

double LevelMeter::level_db() const {
  return power_db(energy_ / static_cast<double>(samples_));
}

double LevelMeter::background_db() const {
  std::uint64_t below = 0;
  for (std::size_t step = 0; step < blocks_at_level_.size(); ++step) {
    below += blocks_at_level_[step];
    if (below * 10 < blocks_ || below == 0) continue;
    if (step == 0) break;
    return kLowestDb + (static_cast<double>(step) + 0.5) / kStepsPerDb;
  }
  return -std::numeric_limits<double>::infinity();
}

void EchoMeter::add_block(const float* mic, const float* ref, const float* out, std::size_t count) {
  if (energy_of(ref, count) > kLoudspeakerPlays * static_cast<double>(count)) {
    blocks_left_ = kEchoTailBlocks;
  }
  if (blocks_left_ == 0) return;
  --blocks_left_;
  mic_energy_ += energy_of(mic, count);
  out_energy_ += energy_of(out, count);
}

double EchoMeter::reduction_db() const {
  return power_db(mic_energy_ / out_energy_);
}

std::string format_text(const std::string& file, const Statistics& s) {
  std::string text = file + "\n";
  const auto add = [&text](const char* name, const std::string& value) {
    text += formatted("  %-17s %s\n", name, value.c_str());
  };
  add("duration", formatted("%.2f s", s.duration_s));
  add("speed",
      formatted("%.1f times real time (factor %.4f)", 1 / s.real_time_factor, s.real_time_factor));
  add("peak", change(s.peak_in_db, s.peak_out_db));
  add("level", change(s.level_in_db, s.level_out_db));
  add("background", change(s.background_in_db, s.background_out_db));
  add("attenuation", decibels(s.attenuation_db, "dB"));
  add("echo reduction", decibels(s.echo_reduction_db, "dB"));
  add("echo delay", milliseconds(s.delay_ms));
  add("clipped samples", std::to_string(s.clipped_samples));
  return text;
}

nlohmann::ordered_json figures(const Statistics& s) {
  // What is not finite becomes null as soon as it is text.
  return {
      {"duration_s", s.duration_s},
      {"engine_s", s.engine_s},
      {"real_time_factor", s.real_time_factor},
      {"peak_in_dbfs", s.peak_in_db},
      {"peak_out_dbfs", s.peak_out_db},
      {"level_in_dbfs", s.level_in_db},
      {"level_out_dbfs", s.level_out_db},
      {"background_in_dbfs", s.background_in_db},
      {"background_out_dbfs", s.background_out_db},
      {"attenuation_db", s.attenuation_db},
      {"echo_reduction_db", s.echo_reduction_db},
      {"echo_delay_ms", s.delay_ms},
      {"clipped_samples", s.clipped_samples},
  };
}

std::string format_json(const std::string& file, const Statistics& statistics) {
  nlohmann::ordered_json object = {{"file", file}};
  object.update(figures(statistics));
  return object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace se_tool
