// NEON kernels of the noise estimator and the noise suppressor: four bins per step, and the scalar
// kernel for what is left over.
#include "kernels/neon.h"
#include "kernels/variants.h"

namespace se {
namespace {

using namespace neon;

// The larger of x and the floor; the floor where x is not a number.
inline float32x4_t at_least(float32x4_t x, float32x4_t floor) {
  return vbslq_f32(greater(x, floor), x, floor);
}

void mean_of_frames(const float* const* frames, int count, float* mean, int n) {
  const float32x4_t scale = vdupq_n_f32(1.0f / static_cast<float>(count));
  const auto mean_at = [=](int k) {
    float32x4_t sum = vld1q_f32(frames[0] + k);
    for (int i = 1; i < count; ++i) sum = vaddq_f32(sum, vld1q_f32(frames[i] + k));
    return vmulq_f32(sum, scale);
  };
  if (n < 4) return kScalarNoise.mean_of_frames(frames, count, mean, n);
  for (int k = 0; k + 4 <= n; k += 4) vst1q_f32(mean + k, mean_at(k));
  vst1q_f32(mean + n - 4, mean_at(n - 4));
}

void track_minima(const float* power, const MinimumTrackers& trackers, float half_window,
                  float window, float none, int n) {
  const float32x4_t half = vdupq_n_f32(half_window);
  const float32x4_t whole = vdupq_n_f32(window);
  const float32x4_t nothing = vdupq_n_f32(none);
  MinimumTrackers at = trackers;
  for (int steps = n / 4; steps > 0; --steps) {
    const float32x4_t p = vld1q_f32(power);
    const float32x4_t old_min = vld1q_f32(at.min);
    const float32x4_t older = vaddq_f32(vld1q_f32(at.age), vdupq_n_f32(1.0f));
    const uint32x4_t falls = greater(old_min, p);
    const float32x4_t age = zero_where(falls, older);
    const float32x4_t kept = vbslq_f32(falls, nothing, vld1q_f32(at.candidate));
    const uint32x4_t takes = vandq_u32(at_or_above(age, half), greater(kept, p));
    const float32x4_t candidate = vbslq_f32(takes, p, kept);

    const uint32x4_t outlived = at_or_above(age, whole);
    vst1q_f32(at.min, vbslq_f32(outlived, candidate, vbslq_f32(falls, p, old_min)));
    vst1q_f32(at.candidate, vbslq_f32(outlived, nothing, candidate));
    vst1q_f32(at.age, vbslq_f32(outlived, half, age));
    power += 4;
    at.min += 4;
    at.candidate += 4;
    at.age += 4;
  }
  kScalarNoise.track_minima(power, at, half_window, window, none, n % 4);
}

void follow(const float* x, float share, float* smooth, int n) {
  const float32x4_t shares = vdupq_n_f32(share);
  for (int steps = n / 4; steps > 0; --steps, x += 4, smooth += 4) {
    const float32x4_t s = vld1q_f32(smooth);
    vst1q_f32(smooth, vmlaq_f32(s, shares, vsubq_f32(vld1q_f32(x), s)));
  }
  kScalarNoise.follow(x, share, smooth, n % 4);
}

void scale_above(const float* x, float scale, float floor, float* y, int n) {
  const float32x4_t scales = vdupq_n_f32(scale);
  const float32x4_t floors = vdupq_n_f32(floor);
  for (int steps = n / 4; steps > 0; --steps, x += 4, y += 4) {
    vst1q_f32(y, at_least(vmulq_f32(vld1q_f32(x), scales), floors));
  }
  kScalarNoise.scale_above(x, scale, floor, y, n % 4);
}

void excess_ratio(const float* power, const float* noise, float* ratio, int n) {
  for (int steps = n / 4; steps > 0; --steps, power += 4, noise += 4, ratio += 4) {
    const float32x4_t floored = vaddq_f32(vld1q_f32(noise), vdupq_n_f32(kTinyNoise));
    const float32x4_t excess = vsubq_f32(divide(vld1q_f32(power), floored), vdupq_n_f32(1.0f));
    vst1q_f32(ratio, zero_where(greater(vdupq_n_f32(0.0f), excess), excess));
  }
  kScalarNoise.excess_ratio(power, noise, ratio, n % 4);
}

void wiener_gain(const float* kept, const float* noise, const float* ratio, float alpha,
                 float* gain, int n) {
  const float32x4_t old_share = vdupq_n_f32(alpha);
  const float32x4_t new_share = vdupq_n_f32(1.0f - alpha);
  for (int steps = n / 4; steps > 0; --steps, kept += 4, noise += 4, ratio += 4, gain += 4) {
    const float32x4_t floored = vaddq_f32(vld1q_f32(noise), vdupq_n_f32(kTinyNoise));
    const float32x4_t old = divide(vmulq_f32(old_share, vld1q_f32(kept)), floored);
    const float32x4_t snr = vmlaq_f32(old, new_share, vld1q_f32(ratio));
    vst1q_f32(gain, divide(snr, vaddq_f32(snr, vdupq_n_f32(1.0f))));
  }
  kScalarNoise.wiener_gain(kept, noise, ratio, alpha, gain, n % 4);
}

// Two bins are both ends at once, so the scalar kernel on the first two and on the last two gives
// the ends.
void smooth_gain(const float* gain, float floor, float* smoothed, int n) {
  if (n < 6) return kScalarNoise.smooth_gain(gain, floor, smoothed, n);
  const float32x4_t floors = vdupq_n_f32(floor);
  const float32x4_t quarter = vdupq_n_f32(0.25f);
  const auto smoothed_at = [=](const float* g) {
    const float32x4_t below = vmulq_f32(quarter, vld1q_f32(g - 1));
    const float32x4_t with_centre = vmlaq_f32(below, vdupq_n_f32(0.5f), vld1q_f32(g));
    return at_least(vmlaq_f32(with_centre, quarter, vld1q_f32(g + 1)), floors);
  };
  for (int k = 1; k + 5 <= n; k += 4) vst1q_f32(smoothed + k, smoothed_at(gain + k));
  vst1q_f32(smoothed + n - 5, smoothed_at(gain + n - 5));
  float ends[2];
  kScalarNoise.smooth_gain(gain, floor, ends, 2);
  smoothed[0] = ends[0];
  kScalarNoise.smooth_gain(gain + n - 2, floor, ends, 2);
  smoothed[n - 1] = ends[1];
}

void kept_power(const float* gain, const float* power, float* kept, int n) {
  for (int steps = n / 4; steps > 0; --steps, gain += 4, power += 4, kept += 4) {
    const float32x4_t g = vld1q_f32(gain);
    vst1q_f32(kept, vmulq_f32(vmulq_f32(g, g), vld1q_f32(power)));
  }
  kScalarNoise.kept_power(gain, power, kept, n % 4);
}

}  // namespace

void use_neon(NoiseKernels& k) {
  k.mean_of_frames = mean_of_frames;
  k.track_minima = track_minima;
  k.follow = follow;
  k.scale_above = scale_above;
  k.excess_ratio = excess_ratio;
  k.wiener_gain = wiener_gain;
  k.smooth_gain = smooth_gain;
  k.kept_power = kept_power;
}

}  // namespace se
