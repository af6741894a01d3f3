// Noise suppressor: a Wiener gain per bin, held above a floor.
//
// Method: the decision-directed a-priori ratio of Y. Ephraim and D. Malah (1984): mostly what the
// previous output kept over the noise, plus a little of what this frame shows above it. Its
// smoothing constant falls from 0.988 towards 0.98 (per 10 ms) in frames that stand out of the
// noise, so that onsets come through while pauses stay free of musical noise. The gain is Wiener's
// rather than their amplitude estimator's, and smoothed over three neighbouring bins.
//
// Cost: three divisions and about twenty operations per bin.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "common/lane_sum.h"
#include "kernels/kernels.h"
#include "ns/noise_suppressor_state.h"

namespace {

constexpr float kAlphaMin = 0.98f;   // per 10 ms
constexpr float kAlphaMax = 0.988f;  // per 10 ms

struct StaticLayout {
  NoiseSuppressor* state;
  float* prev_speech;
};

StaticLayout lay_out_static(se::MemoryWalk& mem, int32_t num_bins) {
  return {mem.record<NoiseSuppressor>(se::kNoiseSuppressorSlot),
          mem.buffer<float>(se::count_of(num_bins))};
}

struct ScratchLayout {
  float* power;
  float* post_snr;
  float* gain;
};

ScratchLayout lay_out_scratch(se::MemoryWalk& scratch, int32_t num_bins) {
  const auto bins = se::count_of(num_bins);
  return {scratch.buffer<float>(bins), scratch.buffer<float>(bins), scratch.buffer<float>(bins)};
}

void bin_powers(const NoiseSuppressor& s, const zel_lcomplex* in) {
  for (int32_t k = 0; k < s.num_bins; ++k) {
    s.power[k] = in[k].re * in[k].re + in[k].im * in[k].im;
  }
}

float smoothing_constant(const NoiseSuppressor& s, float frame_ratio) {
  if (frame_ratio < 1.0f) return s.alpha_max;
  const float alpha = 1.0f + (s.alpha_max - 1.0f) * frame_ratio;
  return alpha < s.alpha_min ? s.alpha_min : alpha;
}

// The scratch area of the a-posteriori ratios, done with by then, takes the smoothed gains.
void smooth_and_apply(const NoiseSuppressor& s, const zel_lcomplex* in, zel_lcomplex* out) {
  const se::Kernels& kernel = se::kernels();
  float* const gain = s.post_snr;
  if (s.num_bins > 1) {
    kernel.noise->smooth_gain(s.gain, s.gain_floor, gain, s.num_bins);
  } else {  // no neighbours
    gain[0] = s.gain[0] > s.gain_floor ? s.gain[0] : s.gain_floor;
  }
  kernel.noise->kept_power(gain, s.power, s.prev_speech, s.num_bins);
  kernel.spectral->apply_gain(in, gain, out, s.num_bins);
}

}  // namespace

size_t noise_suppress_query_mem(int32_t num_bins) {
  return se::measured(lay_out_static, num_bins);
}

size_t noise_suppress_query_scratch(int32_t num_bins) {
  return se::measured(lay_out_scratch, num_bins);
}

NoiseSuppressor* noise_suppress_init(void* mem, void* scratch, int32_t frame_ms, int32_t num_bins,
                                     float max_atten_db) {
  se::MemoryWalk mem_walk(mem);
  se::MemoryWalk scratch_walk(scratch);
  const StaticLayout layout = lay_out_static(mem_walk, num_bins);
  const ScratchLayout temporary = lay_out_scratch(scratch_walk, num_bins);
  NoiseSuppressor& s = *layout.state;
  s.frame_ms = frame_ms < 1 ? 1 : frame_ms;
  s.num_bins = std::max(num_bins, 0);
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
    const se::NoiseKernels& kernel = *se::kernels().noise;
    kernel.excess_ratio(s.power, noise, s.post_snr, s.num_bins);
    const float frame_ratio = se::lane_sum(s.post_snr, s.num_bins) / static_cast<float>(s.num_bins);
    kernel.wiener_gain(s.prev_speech, noise, s.post_snr, smoothing_constant(s, frame_ratio), s.gain,
                       s.num_bins);
    smooth_and_apply(s, in, out);
  }
  ++s.frame_count;
}
