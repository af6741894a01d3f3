// Kernels of the noise estimator and the noise suppressor.
//
// `n` bins, any number >= 0. Nothing is fused; operations round one after another from left to
// right unless parentheses say otherwise. No arrays overlap.
#pragma once

namespace se {

constexpr float kTinyNoise = 1e-20f;  // keeps ratios finite without noise

// What the estimator keeps per bin to follow the minimum of its power.
struct MinimumTrackers {
  float* min;        // the minimum
  float* candidate;  // the minimum of the second half of the window
  float* age;        // frames since the minimum last fell
};

struct NoiseKernels {
  // mean[k] = (frames[0][k] + frames[1][k] + ...) * (1 / count), count >= 1.
  void (*mean_of_frames)(const float* const* frames, int count, float* mean, int n);

  // A power below the minimum replaces it, at age 0 and without candidate (`none`); else the age
  // grows by 1. From `half_window` on, a power below the candidate replaces it; at `window` the
  // candidate becomes the minimum, the age `half_window` again.
  void (*track_minima)(const float* power, const MinimumTrackers& trackers, float half_window,
                       float window, float none, int n);

  // smooth[k] += share * (x[k] - smooth[k])
  void (*follow)(const float* x, float share, float* smooth, int n);

  // y[k] = x[k] * scale where that exceeds `floor`, else `floor`.
  void (*scale_above)(const float* x, float scale, float floor, float* y, int n);

  // ratio[k] = power[k] / (noise[k] + 1e-20) - 1, but 0 where that is negative.
  void (*excess_ratio)(const float* power, const float* noise, float* ratio, int n);

  // s = alpha * kept[k] / (noise[k] + 1e-20) + (1 - alpha) * ratio[k]; gain[k] = s / (s + 1).
  void (*wiener_gain)(const float* kept, const float* noise, const float* ratio, float alpha,
                      float* gain, int n);

  // The gains smoothed over neighbours, 0.25 a + 0.5 b + 0.25 c, where that exceeds `floor`, else
  // `floor`. At the ends 0.75 for the bin itself, then 0.25 for its one neighbour. n >= 2.
  void (*smooth_gain)(const float* gain, float floor, float* smoothed, int n);

  // kept[k] = gain[k] * gain[k] * power[k]
  void (*kept_power)(const float* gain, const float* power, float* kept, int n);
};

extern const NoiseKernels kScalarNoise;

}  // namespace se
