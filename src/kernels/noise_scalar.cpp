// Scalar kernels of the noise estimator and the noise suppressor: the definition of every variant.
#include "kernels/noise_kernels.h"

namespace se {
namespace {

void mean_of_frames(const float* const* frames, int count, float* __restrict mean, int n) {
  for (int k = 0; k < n; ++k) mean[k] = frames[0][k];
  for (int i = 1; i < count; ++i) {
    const float* const frame = frames[i];
    for (int k = 0; k < n; ++k) mean[k] += frame[k];
  }
  const float scale = 1.0f / static_cast<float>(count);
  for (int k = 0; k < n; ++k) mean[k] *= scale;
}

void track_minima(const float* power, const MinimumTrackers& trackers, float half_window,
                  float window, float none, int n) {
  for (int k = 0; k < n; ++k) {
    const bool falls = power[k] < trackers.min[k];
    float min = falls ? power[k] : trackers.min[k];
    float candidate = falls ? none : trackers.candidate[k];
    float age = falls ? 0.0f : trackers.age[k] + 1.0f;

    candidate = age >= half_window && power[k] < candidate ? power[k] : candidate;

    const bool outlived = age >= window;
    min = outlived ? candidate : min;
    candidate = outlived ? none : candidate;
    age = outlived ? half_window : age;

    trackers.min[k] = min;
    trackers.candidate[k] = candidate;
    trackers.age[k] = age;
  }
}

void follow(const float* x, float share, float* __restrict smooth, int n) {
  for (int k = 0; k < n; ++k) smooth[k] += share * (x[k] - smooth[k]);
}

void scale_above(const float* x, float scale, float floor, float* __restrict y, int n) {
  for (int k = 0; k < n; ++k) {
    const float scaled = x[k] * scale;
    y[k] = scaled > floor ? scaled : floor;
  }
}

void excess_ratio(const float* power, const float* noise, float* __restrict ratio, int n) {
  for (int k = 0; k < n; ++k) {
    const float excess = power[k] / (noise[k] + kTinyNoise) - 1.0f;
    ratio[k] = excess < 0.0f ? 0.0f : excess;
  }
}

void wiener_gain(const float* kept, const float* noise, const float* ratio, float alpha,
                 float* __restrict gain, int n) {
  for (int k = 0; k < n; ++k) {
    const float snr = alpha * kept[k] / (noise[k] + kTinyNoise) + (1.0f - alpha) * ratio[k];
    gain[k] = snr / (snr + 1.0f);
  }
}

void smooth_gain(const float* gain, float floor, float* __restrict smoothed, int n) {
  const auto at_least = [floor](float g) { return g > floor ? g : floor; };
  const int last = n - 1;
  smoothed[0] = at_least(0.75f * gain[0] + 0.25f * gain[1]);
  for (int k = 1; k < last; ++k) {
    smoothed[k] = at_least(0.25f * gain[k - 1] + 0.5f * gain[k] + 0.25f * gain[k + 1]);
  }
  smoothed[last] = at_least(0.75f * gain[last] + 0.25f * gain[last - 1]);
}

void kept_power(const float* gain, const float* power, float* __restrict kept, int n) {
  for (int k = 0; k < n; ++k) kept[k] = gain[k] * gain[k] * power[k];
}

constexpr NoiseKernels table() {
  NoiseKernels k = {};
  k.mean_of_frames = mean_of_frames;
  k.track_minima = track_minima;
  k.follow = follow;
  k.scale_above = scale_above;
  k.excess_ratio = excess_ratio;
  k.wiener_gain = wiener_gain;
  k.smooth_gain = smooth_gain;
  k.kept_power = kept_power;
  return k;
}

}  // namespace

const NoiseKernels kScalarNoise = table();

}  // namespace se
