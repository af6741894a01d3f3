// Automatic gain control: a broadband gain in small steps.
//
// Method: the loudness of active speech is the mean level of its last 20 frames; a peak tracker
// follows the loudest such mean over about a second of speech, the way minimum statistics follows
// the quietest one (a peak that is not reached again is replaced by the highest of the later half
// of the window). The gain steps by fixed factors towards target over peak and holds within 3 dB of
// it, so speech is not pumped. Frames that do not count as speech only ever lower the gain, when it
// would overload.
//
// Cost: a few operations, a square root, and one pass over the spectrum where the gain is applied.
#include <cmath>

#include "common/geometry.h"
#include "dynamics/agc_state.h"

namespace {

constexpr int kHistory = 20;            // frames in the mean level: 200 ms
constexpr float kTargetDb = 22.0f;      // below full scale
constexpr float kActiveDb = 80.0f;      // below full scale
constexpr float kMaxGain = 316.22775f;  // +50 dB
constexpr float kMinGain = 0.5011872f;  // -6 dB
constexpr float kSmoothing = 0.1f;
constexpr float kPeakWindow = 100.0f;  // updates
constexpr float kMinMeanLevel = 1e-10f;
constexpr int kMinActiveRun = 2;   // frames before activity is believed
constexpr int kStartMs = 1000;     // no update before
constexpr int kLearnMs = 500;      // of updates, before the gain moves
constexpr float kOverload = 2.0f;  // times the target amplitude
constexpr float kOverloadStep = 0.9f;
constexpr float kUnityFrom = 0.99f;  // gains in between are not worth a pass
constexpr float kUnityTo = 1.01f;

struct Layout {
  AgcState* state;
  float* level_hist;
};

Layout lay_out(se::MemoryWalk& mem) {
  return {mem.record<AgcState>(se::kAgcSlot), mem.buffer<float>(kHistory)};
}

// The counters matter only up to small limits; they stop rather than overflow.
void count_up(int32_t& counter) {
  if (counter < INT32_MAX) ++counter;
}

// Puts `level` into the ring. Returns the ring's mean.
float push_level(AgcState& s, float level) {
  const float replaced = s.level_hist[s.hist_pos];  // 0 while the ring is filling
  s.level_hist[s.hist_pos] = level;
  s.hist_pos = (s.hist_pos + 1) % s.hist_len;
  if (s.hist_fill < s.hist_len) ++s.hist_fill;
  s.level_sum += level - replaced;
  const float mean = s.level_sum / static_cast<float>(s.hist_fill);
  return mean > kMinMeanLevel ? mean : kMinMeanLevel;
}

void track_peak(AgcState& s, float mean) {
  const float half_window = 0.5f * s.peak_window;
  if (s.peak_level < mean) {
    s.peak_level = mean;
    s.candidate_peak = 0.0f;
    s.peak_age = 0.0f;
  } else {
    s.peak_age += 1.0f;
  }
  if (s.peak_age > half_window && s.candidate_peak < mean) s.candidate_peak = mean;
  if (s.peak_age >= s.peak_window) {
    s.peak_age = half_window;
    s.peak_level = s.candidate_peak;
    s.candidate_peak = 0.0f;
  }
}

// The factor by which the gain moves when it stands at `ratio` times the desired one. No upward
// factor overshoots.
float step_towards(float ratio) {
  if (ratio > 4.0f) return 0.8f;
  if (ratio > 2.0f) return 0.9f;
  if (ratio > 1.414f) return 0.95f;
  if (ratio < 0.25f) return 2.0f;
  if (ratio < 0.5f) return 1.85f;
  if (ratio < 0.7071f) return 1.25f;
  return 1.0f;
}

void update(AgcState& s, float level) {
  count_up(s.update_count);
  track_peak(s, push_level(s, level));
  if (se::kFrameMs * static_cast<int64_t>(s.update_count) <= kLearnMs) return;
  float desired = s.target_amp / std::sqrt(s.peak_level);
  if (desired > s.max_gain) desired = s.max_gain;
  if (desired <= s.min_gain) desired = s.min_gain;
  s.gain *= step_towards(s.gain / desired);
}

// Whether this frame counts as speech for long enough to be learnt from.
bool updates(AgcState& s, bool active) {
  if (!active || !(s.smooth_level > s.active_level)) {
    s.active_run = 0;
    return false;
  }
  count_up(s.active_run);
  return s.active_run >= kMinActiveRun && se::kFrameMs * s.frame_count >= kStartMs;
}

}  // namespace

size_t agc_query_mem() {
  return se::measured(lay_out);
}

AgcState* agc_init(void* mem, float window_energy_db) {
  se::MemoryWalk walk(mem);
  const Layout layout = lay_out(walk);
  AgcState& s = *layout.state;
  s.target_amp = std::pow(10.0f, (window_energy_db - kTargetDb) * 0.05f);
  s.active_level = std::pow(10.0f, (window_energy_db - kActiveDb) * 0.1f);
  s.max_gain = kMaxGain;
  s.min_gain = kMinGain;
  s.active_run = 0;
  s.level_hist = layout.level_hist;
  s.hist_len = kHistory;
  s.smooth_coef = kSmoothing;
  s.smooth_level = s.active_level;
  s.peak_level = 0.0f;
  s.candidate_peak = 0.0f;
  s.peak_age = 0.0f;
  s.peak_window = kPeakWindow;
  s.gain = 1.0f;
  s.level_sum = 0.0f;
  s.frame_count = 0;
  return layout.state;
}

void agc_process(AgcState* state, zel_lcomplex* spectrum, bool active, float level) {
  AgcState& s = *state;
  ++s.frame_count;
  s.smooth_level += s.smooth_coef * (level - s.smooth_level);
  if (updates(s, active)) {
    update(s, level);
  } else if (std::sqrt(s.smooth_level) * s.gain > kOverload * s.target_amp) {
    s.gain *= kOverloadStep;
  }
  if (s.gain > kUnityTo || s.gain < kUnityFrom) {
    for (int k = 0; k < se::kNumBins; ++k) {
      spectrum[k].re *= s.gain;
      spectrum[k].im *= s.gain;
    }
  }
}

void agc_set_max_gain(AgcState* state, float max_gain) {
  state->max_gain = max_gain;
}
