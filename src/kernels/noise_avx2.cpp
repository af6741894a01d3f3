// Noise kernels for AVX2: eight bins at a time.
#include "kernels/avx2.h"
#include "kernels/noise_kernels.h"
#include "kernels/variants.h"

namespace se {
namespace {

// The power of the noise, never 0.
__m256 at_least_tiny(__m256 noise) {
  return _mm256_add_ps(noise, fill(kTinyNoise));
}

void mean_of_frames(const float* const* frames, int count, float* mean, int n) {
  const __m256 scale = fill(1.0f / static_cast<float>(count));
  by_eights(n, [&](int k, auto lanes) {
    __m256 sum = lanes.load(frames[0] + k);
    for (int i = 1; i < count; ++i) sum = _mm256_add_ps(sum, lanes.load(frames[i] + k));
    lanes.store(mean + k, _mm256_mul_ps(sum, scale));
  });
}

void track_minima(const float* power, const MinimumTrackers& trackers, float half_window,
                  float window, float none, int n) {
  by_eights(n, [&](int k, auto lanes) {
    const __m256 p = lanes.load(power + k);
    const __m256 old_min = lanes.load(trackers.min + k);
    const __m256 older = _mm256_add_ps(lanes.load(trackers.age + k), fill(1.0f));
    const __m256 falls = greater(old_min, p);
    const __m256 min = _mm256_blendv_ps(old_min, p, falls);
    const __m256 age = _mm256_andnot_ps(falls, older);
    __m256 candidate = _mm256_blendv_ps(lanes.load(trackers.candidate + k), fill(none), falls);

    const __m256 second_half = _mm256_cmp_ps(age, fill(half_window), _CMP_GE_OQ);
    const __m256 takes = _mm256_and_ps(second_half, greater(candidate, p));
    candidate = _mm256_blendv_ps(candidate, p, takes);

    const __m256 outlived = _mm256_cmp_ps(age, fill(window), _CMP_GE_OQ);
    lanes.store(trackers.min + k, _mm256_blendv_ps(min, candidate, outlived));
    lanes.store(trackers.candidate + k, _mm256_blendv_ps(candidate, fill(none), outlived));
    lanes.store(trackers.age + k, _mm256_blendv_ps(age, fill(half_window), outlived));
  });
}

void follow(const float* x, float share, float* smooth, int n) {
  by_eights(n, [&](int k, auto lanes) {
    const __m256 s = lanes.load(smooth + k);
    const __m256 change = _mm256_mul_ps(fill(share), _mm256_sub_ps(lanes.load(x + k), s));
    lanes.store(smooth + k, _mm256_add_ps(s, change));
  });
}

// max returns its second operand unless the first one is greater, also for NaN.
void scale_above(const float* x, float scale, float floor, float* y, int n) {
  by_eights(n, [&](int k, auto lanes) {
    const __m256 scaled = _mm256_mul_ps(lanes.load(x + k), fill(scale));
    lanes.store(y + k, _mm256_max_ps(scaled, fill(floor)));
  });
}

void excess_ratio(const float* power, const float* noise, float* ratio, int n) {
  by_eights(n, [&](int k, auto lanes) {
    const __m256 quotient =
        _mm256_div_ps(lanes.load(power + k), at_least_tiny(lanes.load(noise + k)));
    const __m256 excess = _mm256_sub_ps(quotient, fill(1.0f));
    const __m256 negative = greater(_mm256_setzero_ps(), excess);
    lanes.store(ratio + k, _mm256_andnot_ps(negative, excess));
  });
}

void wiener_gain(const float* kept, const float* noise, const float* ratio, float alpha,
                 float* gain, int n) {
  by_eights(n, [&](int k, auto lanes) {
    const __m256 share = _mm256_div_ps(_mm256_mul_ps(fill(alpha), lanes.load(kept + k)),
                                       at_least_tiny(lanes.load(noise + k)));
    const __m256 snr =
        _mm256_add_ps(share, _mm256_mul_ps(fill(1.0f - alpha), lanes.load(ratio + k)));
    lanes.store(gain + k, _mm256_div_ps(snr, _mm256_add_ps(snr, fill(1.0f))));
  });
}

void smooth_gain(const float* gain, float floor, float* smoothed, int n) {
  const auto at_least = [floor](float g) { return g > floor ? g : floor; };
  const int last = n - 1;
  smoothed[0] = at_least(0.75f * gain[0] + 0.25f * gain[1]);
  by_eights(n - 2, [&](int i, auto lanes) {
    const __m256 below = _mm256_mul_ps(fill(0.25f), lanes.load(gain + i));
    const __m256 own = _mm256_mul_ps(fill(0.5f), lanes.load(gain + i + 1));
    const __m256 next = _mm256_mul_ps(fill(0.25f), lanes.load(gain + i + 2));
    const __m256 mean = _mm256_add_ps(_mm256_add_ps(below, own), next);
    lanes.store(smoothed + i + 1, _mm256_max_ps(mean, fill(floor)));
  });
  smoothed[last] = at_least(0.75f * gain[last] + 0.25f * gain[last - 1]);
}

void kept_power(const float* gain, const float* power, float* kept, int n) {
  by_eights(n, [&](int k, auto lanes) {
    const __m256 g = lanes.load(gain + k);
    lanes.store(kept + k, _mm256_mul_ps(_mm256_mul_ps(g, g), lanes.load(power + k)));
  });
}

}  // namespace

void use_avx2(NoiseKernels& k) {
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
