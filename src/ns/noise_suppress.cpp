// Noise suppressor: a Wiener gain per bin, held above a floor.
//
// Method: the decision-directed a-priori ratio of Y. Ephraim and D. Malah (1984): mostly what the
// previous output kept over the noise, plus a little of what this frame shows above it. Its
// smoothing constant falls from 0.988 towards 0.98 (per 10 ms) in frames that stand out of the
// noise, so that onsets come through while pauses stay free of musical noise. The gain is Wiener's
// rather than their amplitude estimator's, and smoothed over three neighbouring bins.
//
// Cost: three divisions and about twenty operations per bin.
#include <cmath>
#include <cstring>

#include "common/lane_sum.h"
#include "ns/noise_suppressor_state.h"

namespace {

constexpr float kAlphaMin = 0.98f;   // per 10 ms
constexpr float kAlphaMax = 0.988f;  // per 10 ms
constexpr float kTiny = 1e-20f;      // keeps ratios finite without noise

int32_t valid_num_bins(int32_t num_bins) {
  return num_bins < 0 ? 0 : num_bins;
}

struct StaticLayout {
  NoiseSuppressor* state;
  float* prev_speech;
};

StaticLayout lay_out_static(se::MemoryWalk& mem, int32_t num_bins) {
  return {mem.record<NoiseSuppressor>(se::kNoiseSuppressorSlot),
          mem.buffer<float>(static_cast<size_t>(valid_num_bins(num_bins)))};
}

struct ScratchLayout {
  float* power;
  float* post_snr;
  float* gain;
};

ScratchLayout lay_out_scratch(se::MemoryWalk& scratch, int32_t num_bins) {
  const auto bins = static_cast<size_t>(valid_num_bins(num_bins));
  return {scratch.buffer<float>(bins), scratch.buffer<float>(bins), scratch.buffer<float>(bins)};
}

void bin_powers(const NoiseSuppressor& s, const zel_lcomplex* in) {
  for (int32_t k = 0; k < s.num_bins; ++k) {
    s.power[k] = in[k].re * in[k].re + in[k].im * in[k].im;
  }
}

// Returns the mean of the a-posteriori ratios.
float a_posteriori_ratios(const NoiseSuppressor& s, const float* noise) {
  for (int32_t k = 0; k < s.num_bins; ++k) {
    const float ratio = s.power[k] / (noise[k] + kTiny) - 1.0f;
    s.post_snr[k] = ratio < 0.0f ? 0.0f : ratio;
  }
  return se::lane_sum(s.post_snr, s.num_bins) / static_cast<float>(s.num_bins);
}

float smoothing_constant(const NoiseSuppressor& s, float frame_ratio) {
  if (frame_ratio < 1.0f) return s.alpha_max;
  const float alpha = 1.0f + (s.alpha_max - 1.0f) * frame_ratio;
  return alpha < s.alpha_min ? s.alpha_min : alpha;
}

void wiener_gains(const NoiseSuppressor& s, const float* noise, float alpha) {
  for (int32_t k = 0; k < s.num_bins; ++k) {
    const float prior_snr =
        alpha * s.prev_speech[k] / (noise[k] + kTiny) + (1.0f - alpha) * s.post_snr[k];
    s.gain[k] = prior_snr / (prior_snr + 1.0f);
  }
}

void apply(const NoiseSuppressor& s, int32_t k, float smoothed_gain, const zel_lcomplex* in,
           zel_lcomplex* out) {
  const float g = smoothed_gain > s.gain_floor ? smoothed_gain : s.gain_floor;
  s.prev_speech[k] = g * g * s.power[k];
  out[k] = {in[k].re * g, in[k].im * g};
}

void smooth_and_apply(const NoiseSuppressor& s, const zel_lcomplex* in, zel_lcomplex* out) {
  const float* gain = s.gain;
  const int32_t last = s.num_bins - 1;
  if (last == 0) {  // no neighbours
    apply(s, 0, gain[0], in, out);
    return;
  }
  apply(s, 0, 0.75f * gain[0] + 0.25f * gain[1], in, out);
  for (int32_t k = 1; k < last; ++k) {
    apply(s, k, 0.25f * gain[k - 1] + 0.5f * gain[k] + 0.25f * gain[k + 1], in, out);
  }
  apply(s, last, 0.75f * gain[last] + 0.25f * gain[last - 1], in, out);
}

}  // namespace

size_t noise_suppress_query_mem(int32_t num_bins) {
  se::MemoryWalk mem;
  lay_out_static(mem, num_bins);
  return mem.size();
}

size_t noise_suppress_query_scratch(int32_t num_bins) {
  se::MemoryWalk scratch;
  lay_out_scratch(scratch, num_bins);
  return scratch.size();
}

NoiseSuppressor* noise_suppress_init(void* mem, void* scratch, int32_t frame_ms, int32_t num_bins,
                                     float max_atten_db) {
  se::MemoryWalk mem_walk(mem);
  se::MemoryWalk scratch_walk(scratch);
  const StaticLayout layout = lay_out_static(mem_walk, num_bins);
  const ScratchLayout temporary = lay_out_scratch(scratch_walk, num_bins);
  NoiseSuppressor& s = *layout.state;
  s.frame_ms = frame_ms < 1 ? 1 : frame_ms;
  s.num_bins = valid_num_bins(num_bins);
  const float spans_of_10_ms = static_cast<float>(s.frame_ms) * 0.1f;
  s.alpha_min = std::pow(kAlphaMin, spans_of_10_ms);
  s.alpha_max = std::pow(kAlphaMax, spans_of_10_ms);
  s.gain_floor = std::pow(10.0f, max_atten_db * -0.05f);
  s.power = temporary.power;
  s.post_snr = temporary.post_snr;
  s.gain = temporary.gain;
  s.prev_speech = layout.prev_speech;
  return layout.state;
}

void noise_suppress_process(NoiseSuppressor* state, const float* noise, const zel_lcomplex* in,
                            zel_lcomplex* out) {
  NoiseSuppressor& s = *state;
  if (s.num_bins == 0) return;
  bin_powers(s, in);
  if (s.frame_count == 0) {
    std::memcpy(s.prev_speech, s.power, static_cast<size_t>(s.num_bins) * sizeof(float));
  } else {
    const float frame_ratio = a_posteriori_ratios(s, noise);
    wiener_gains(s, noise, smoothing_constant(s, frame_ratio));
    smooth_and_apply(s, in, out);
  }
  ++s.frame_count;
}
