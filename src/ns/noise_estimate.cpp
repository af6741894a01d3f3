// Noise estimator: the minimum of each bin's short-time power is its noise.
//
// Method: minimum statistics (R. Martin, 2001) in its plainest form. Speech leaves every bin now
// and then, so the smallest 60 ms average of the last seconds is noise. Two trackers per bin make
// the window: the minimum, with its age, and a candidate that gathers the minimum while the age
// runs through the second half of the window and replaces it at the end. The minimum lies below the
// mean of the noise; a fixed factor of 4 makes up for that and for the suppressor's liking of
// musical noise, in place of Martin's bias compensation.
//
// Cost: about ten operations per bin, six of them the short-span average.
//
// Limits: noise that rises is followed after four seconds; what stays on for longer is noise.
#include <algorithm>
#include <cfloat>
#include <cstring>

#include "common/lane_sum.h"
#include "kernels/kernels.h"
#include "ns/noise_estimator_state.h"

namespace {

constexpr int32_t kShortSpanMs = 60;
constexpr int32_t kWindowSeconds = 4;
constexpr float kSilence = 1e-7f;    // power per sample
constexpr float kFloor = 3.16e-7f;   // power per sample
constexpr float kNoMinimum = 1e10f;  // above every bin power
constexpr float kSmoothing = 0.25f;
constexpr float kOverestimate = 4.0f;

int32_t valid_frame_ms(int32_t frame_ms) {
  return frame_ms < 1 ? 1 : frame_ms > kShortSpanMs ? kShortSpanMs : frame_ms;
}

struct Layout {
  NoiseEstimator* state;
  NoiseEstimator fields;  // the buffers' places
};

Layout lay_out_static(se::MemoryWalk& mem, int32_t frame_ms, int32_t num_bins) {
  const auto bins = se::count_of(num_bins);
  const auto span = static_cast<size_t>(kShortSpanMs / valid_frame_ms(frame_ms));
  Layout at = {};
  at.state = mem.record<NoiseEstimator>(se::kNoiseEstimatorSlot);
  at.fields.power_history = mem.buffer<float>(span * bins);
  at.fields.smooth_noise = mem.buffer<float>(bins);
  at.fields.min_power = mem.buffer<float>(bins);
  at.fields.candidate_min = mem.buffer<float>(bins);
  at.fields.min_age = mem.buffer<float>(bins);
  return at;
}

float* lay_out_scratch(se::MemoryWalk& scratch, int32_t num_bins) {
  return scratch.buffer<float>(se::count_of(num_bins));
}

size_t spectrum_bytes(const NoiseEstimator& s) {
  return static_cast<size_t>(s.num_bins) * sizeof(float);
}

float* history_slot(const NoiseEstimator& s, int32_t slot) {
  return s.power_history + static_cast<size_t>(slot) * static_cast<size_t>(s.num_bins);
}

float mean(const NoiseEstimator& s, const float* power) {
  return se::lane_sum(power, s.num_bins) / static_cast<float>(s.num_bins);
}

void push_history(NoiseEstimator& s, const float* power) {
  std::memcpy(history_slot(s, s.history_pos), power, spectrum_bytes(s));
  s.history_pos = (s.history_pos + 1) % s.history_len;
}

// Averages the ring from its oldest frame to its newest.
void average_history(const NoiseEstimator& s) {
  const float* frames[kShortSpanMs];
  for (int32_t i = 0; i < s.history_len; ++i) {
    frames[i] = history_slot(s, (s.history_pos + i) % s.history_len);
  }
  se::kernels().noise->mean_of_frames(frames, s.history_len, s.avg_power, s.num_bins);
}

// Lets the estimate follow one frame, unless the frame is too quiet to tell noise from nothing.
void follow(NoiseEstimator& s, const float* power) {
  const se::NoiseKernels& kernel = *se::kernels().noise;
  const float frame_mean = mean(s, power);
  if (!(frame_mean >= s.silence_level && frame_mean <= FLT_MAX)) return;
  push_history(s, power);
  if (s.frame_count < static_cast<uint64_t>(s.history_len)) {
    std::memcpy(s.min_power, power, spectrum_bytes(s));
  } else {
    average_history(s);
    if (mean(s, s.avg_power) < s.noise_floor) return;
    const int half_window = s.window_frames / 2;
    kernel.track_minima(s.avg_power, {s.min_power, s.candidate_min, s.min_age},
                        static_cast<float>(half_window), static_cast<float>(s.window_frames),
                        kNoMinimum, s.num_bins);
  }
  kernel.follow(s.min_power, kSmoothing, s.smooth_noise, s.num_bins);
}

}  // namespace

size_t noise_estimate_query_mem(int32_t frame_ms, int32_t num_bins) {
  return se::measured(lay_out_static, frame_ms, num_bins);
}

size_t noise_estimate_query_scratch(int32_t num_bins) {
  return se::measured(lay_out_scratch, num_bins);
}

NoiseEstimator* noise_estimate_init(void* mem, void* scratch, int32_t frame_ms, int32_t num_bins,
                                    float window_energy) {
  se::MemoryWalk mem_walk(mem);
  se::MemoryWalk scratch_walk(scratch);
  const Layout layout = lay_out_static(mem_walk, frame_ms, num_bins);
  NoiseEstimator& s = *layout.state;
  s = layout.fields;
  s.frame_ms = valid_frame_ms(frame_ms);
  s.num_bins = std::max(num_bins, 0);
  s.frames_per_sec = 1000 / s.frame_ms;
  s.silence_level = window_energy * kSilence;
  s.noise_floor = window_energy * kFloor;
  s.avg_power = lay_out_scratch(scratch_walk, num_bins);
  s.history_len = kShortSpanMs / s.frame_ms;
  s.window_frames = s.frames_per_sec * kWindowSeconds;
  s.overestimate = kOverestimate;
  std::fill_n(s.min_power, s.num_bins, kNoMinimum);
  std::fill_n(s.candidate_min, s.num_bins, kNoMinimum);
  return layout.state;
}

void noise_estimate_process(NoiseEstimator* state, const float* power, float* noise) {
  NoiseEstimator& s = *state;
  ++s.frame_count;
  follow(s, power);
  se::kernels().noise->scale_above(s.smooth_noise, s.overestimate, s.noise_floor, noise,
                                   s.num_bins);
}
